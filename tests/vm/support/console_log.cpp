#include "tests/vm/support/console_log.h"

#include <errno.h>
#include <poll.h>
#include <sys/inotify.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace corvane::vm {

ConsoleLog::ConsoleLog(std::string path)
    : path_(std::move(path)), watch_(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    if (!watch_.isOpen() || ::inotify_add_watch(watch_.borrow(), path_.c_str(), IN_MODIFY) < 0) {
        throw std::system_error(errno, std::generic_category(), "watch " + path_);
    }
}

std::size_t ConsoleLog::end() const {
    return std::filesystem::file_size(path_);
}

std::string ConsoleLog::since(std::size_t start) const {
    std::ifstream file(path_, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(start));
    std::string log{std::istreambuf_iterator<char>(file), {}};
    std::erase(log, '\r');  // the guest's terminal puts one before each line feed
    return log;
}

std::string ConsoleLog::await(std::string_view text, std::size_t start, Limit limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        // Events are taken away before the file is read, so that no change falls in between.
        std::array<char, 4096> events;
        while (::read(watch_.borrow(), events.data(), events.size()) > 0) {
        }
        const std::string log = since(start);
        if (const auto found = log.find(text); found != std::string::npos) {
            const auto lineEnd = log.find('\n', found);
            if (lineEnd != std::string::npos) {
                return log.substr(0, lineEnd + 1);
            }
        }
        const auto left =
            std::chrono::duration_cast<Limit>(deadline - std::chrono::steady_clock::now());
        pollfd changed{watch_.borrow(), POLLIN, 0};
        if (left.count() <= 0 || ::poll(&changed, 1, static_cast<int>(left.count())) == 0) {
            throw HangError("the log does not say '" + std::string(text) + "' but:\n" + log);
        }
    }
}

std::size_t countOf(std::string_view text, std::string_view log) {
    std::size_t count = 0;
    for (auto at = log.find(text); at != std::string_view::npos; at = log.find(text, at + 1)) {
        ++count;
    }
    return count;
}

}  // namespace corvane::vm
