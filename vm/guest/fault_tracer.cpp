// Makes chosen system calls of the agent fail: see call_tracer.h.
//
//   fault-tracer serve            goes to the background and takes orders
//   fault-tracer ORDER [WORD...]  gives it one order and prints the answer
//
// The orders:
//
//   start                         starts the agent; answers at once
//   kill                          ends the agent; answers when it is gone
//   await-end                     answers when the agent has ended
//   begin [ERROR OCCURRENCE CALL] forgets what was counted, and sets a fault; ERROR 0 is a short
//                                 count. CALL is one line as "report" prints it
//   state                         answers at once
//   report                        what was counted since, and no fault any more
//
// Every answer has one line "KEY VALUE" for each of: agent (process id, or -1), status (of the
// last end), fault (1 when it happened), descriptors, children; and then "COUNT CALL" lines
// (report only).
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>

#include "vm/guest/call_tracer.h"

namespace {

constexpr char socketPath[] = "/run/fault-tracer";
constexpr char program[] = "/usr/bin/corvane";
constexpr char outputPath[] = "/run/log/agent.output";

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

sockaddr_un address() {
    sockaddr_un made{};
    made.sun_family = AF_UNIX;
    std::strcpy(made.sun_path, socketPath);  // NOLINT: it fits
    return made;
}

int createSocket() {
    const int made = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (made < 0) {
        fail("socket");
    }
    return made;
}

std::string receiveAll(int from) {
    std::string text;
    std::array<char, 4096> piece;
    for (ssize_t count = 0; (count = ::read(from, piece.data(), piece.size())) > 0;) {
        text.append(piece.data(), static_cast<std::size_t>(count));
    }
    return text;
}

void sendAll(int to, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = ::write(to, text.data(), text.size());
        if (count <= 0) {
            return;
        }
        text.remove_prefix(static_cast<std::size_t>(count));
    }
}

int giveOrder(int count, char** words) {
    const int connection = createSocket();
    const sockaddr_un server = address();
    if (::connect(connection, reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0) {
        fail(socketPath);
    }
    std::string order;
    for (int index = 1; index < count; ++index) {
        order += (index > 1 ? " " : "") + std::string(words[index]);
    }
    sendAll(connection, order);
    ::shutdown(connection, SHUT_WR);
    std::fputs(receiveAll(connection).c_str(), stdout);
    return 0;
}

std::size_t countDescriptors(pid_t process) {
    std::error_code error;
    const std::filesystem::directory_iterator list("/proc/" + std::to_string(process) + "/fd",
                                                   error);
    return error ? 0 : static_cast<std::size_t>(std::distance(begin(list), end(list)));
}

/// Ended ones that nobody has asked after among them.
std::size_t countChildren(pid_t process) {
    std::size_t count = 0;
    std::error_code error;
    const std::string tasks = "/proc/" + std::to_string(process) + "/task";
    for (const auto& task : std::filesystem::directory_iterator(tasks, error)) {
        std::ifstream children(task.path() / "children");
        for (std::string child; children >> child;) {
            ++count;
        }
    }
    return count;
}

class Server {
 public:
    [[noreturn]] void run(int listener) {
        sigset_t childSignal;
        ::sigemptyset(&childSignal);
        ::sigaddset(&childSignal, SIGCHLD);
        ::sigprocmask(SIG_BLOCK, &childSignal, nullptr);
        const int events = ::signalfd(-1, &childSignal, SFD_CLOEXEC | SFD_NONBLOCK);
        for (;;) {
            pollfd waited[2] = {{events, POLLIN, 0}, {waiting_ < 0 ? listener : -1, POLLIN, 0}};
            ::poll(waited, 2, -1);
            if (waited[0].revents != 0) {
                signalfd_siginfo event{};
                while (::read(events, &event, sizeof event) > 0) {
                }
                tracer_.handleEvents();
            }
            if (waiting_ >= 0 && !tracer_.isRunning()) {
                answer(std::exchange(waiting_, -1), false);
            } else if (waited[1].revents != 0) {
                obey(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
            }
        }
    }

 private:
    void obey(int connection) {
        std::istringstream words(receiveAll(connection));
        std::string order;
        words >> order;
        if (order == "start") {
            tracer_.start(program, outputPath);
        } else if (order == "kill" || order == "await-end") {
            if (order == "kill") {
                tracer_.kill();
            }
            if (tracer_.isRunning()) {
                waiting_ = connection;
                return;
            }
        } else if (order == "begin") {
            begin(words);
        }
        answer(connection, order == "report");
        if (order == "report") {
            tracer_.begin({});
        }
    }

    void begin(std::istream& words) {
        Fault fault;
        if (words >> fault.error >> fault.occurrence >> std::ws) {
            std::getline(words, fault.call);
            tracer_.begin(fault);
        } else {
            tracer_.begin({});
        }
    }

    void answer(int connection, bool withCounts) {
        std::ostringstream text;
        text << "agent " << tracer_.agent() << "\nstatus " << tracer_.exitStatus() << "\nfault "
             << tracer_.faultHappened() << "\ndescriptors " << countDescriptors(tracer_.agent())
             << "\nchildren " << countChildren(tracer_.agent()) << '\n';
        if (withCounts) {
            for (const auto& [call, count] : tracer_.counts()) {
                text << count << ' ' << call << '\n';
            }
        }
        sendAll(connection, text.str());
        ::close(connection);
    }

    CallTracer tracer_;
    int waiting_ = -1;  ///< who is told of the agent's end
};

int serve() {
    const int listener = createSocket();
    const sockaddr_un here = address();
    ::unlink(socketPath);
    if (::bind(listener, reinterpret_cast<const sockaddr*>(&here), sizeof here) != 0 ||
        ::listen(listener, 1) != 0) {
        fail(socketPath);
    }
    if (::daemon(0, 0) != 0) {
        fail("daemon");
    }
    Server().run(listener);
}

}  // namespace

int main(int count, char** words) {
    if (count < 2) {
        std::fputs("usage: fault-tracer serve | ORDER [WORD...]\n", stderr);
        return 2;
    }
    return std::string_view(words[1]) == "serve" ? serve() : giveOrder(count, words);
}
