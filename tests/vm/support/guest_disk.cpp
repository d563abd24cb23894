#include "tests/vm/support/guest_disk.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <spawn.h>
#include <system_error>
#include <vector>

#include "tests/vm/support/descriptor.h"

namespace corvane::vm {
namespace {

[[noreturn]] void throwError(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

Descriptor openFile(const std::filesystem::path& path, int flags) {
    Descriptor file(::open(path.c_str(), flags | O_CLOEXEC, 0600));
    if (!file.isOpen()) {
        throwError(path);
    }
    return file;
}

void copyPiece(int from, int to, off_t start, off_t end) {
    off_t target = start;
    while (start < end) {
        if (::copy_file_range(from, &start, to, &target, static_cast<std::size_t>(end - start),
                              0) <= 0) {
            throwError("copy of a disk");
        }
    }
}

/// Goes from one piece of data to the next: most of a disk are holes.
void copySparse(int from, int to) {
    struct stat state {};
    if (::fstat(from, &state) != 0 || ::ftruncate(to, state.st_size) != 0) {
        throwError("copy of a disk");
    }
    off_t start = 0;
    while ((start = ::lseek(from, start, SEEK_DATA)) >= 0) {
        const off_t end = ::lseek(from, start, SEEK_HOLE);
        copyPiece(from, to, start, end);
        start = end;
    }
}

/// What a tool of e2fsprogs prints; its remarks on standard error are dropped. Those tools are
/// where only root looks for programs.
std::string outputOf(std::vector<std::string> words, const std::filesystem::path& outputPath) {
    words.insert(words.begin(), {"/usr/bin/env", "PATH=/usr/sbin:/sbin:/usr/bin:/bin"});
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outputPath.c_str(),
                                       O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t child = -1;
    const int error =
        ::posix_spawn(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    if (error != 0 || ::waitpid(child, &status, 0) != child || status != 0) {
        throw std::runtime_error(words[2] + " fails");
    }
    std::ifstream output(outputPath, std::ios::binary);
    return {std::istreambuf_iterator<char>(output), {}};
}

}  // namespace

GuestDisk::GuestDisk(const std::filesystem::path& image) {
    std::string name = "/tmp/corvane-disk.XXXXXX";
    if (::mkdtemp(name.data()) == nullptr) {
        throwError("mkdtemp");
    }
    directory_ = name;
    path_ = directory_ / "disk";
    try {
        copySparse(openFile(image, O_RDONLY).borrow(),
                   openFile(path_, O_WRONLY | O_CREAT).borrow());
    } catch (...) {
        std::filesystem::remove_all(directory_);
        throw;
    }
}

GuestDisk::~GuestDisk() {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

bool GuestDisk::isClean() const {
    const std::string header = outputOf({"dumpe2fs", "-h", path_}, directory_ / "output");
    // A mounted file system, and one that was left without being unmounted, has a journal to be
    // played back.
    return header.find("needs_recovery") == std::string::npos &&
           header.find("Filesystem state:         clean") != std::string::npos;
}

std::string GuestDisk::readFile(const std::string& path) const {
    return outputOf({"debugfs", "-R", "cat " + path, path_}, directory_ / "output");
}

}  // namespace corvane::vm
