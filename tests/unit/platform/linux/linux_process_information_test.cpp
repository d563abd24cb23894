#include "platform/linux/linux_process_information.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <limits>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "tests/fakes/child_process.h"
#include "tests/fakes/fake_process_services.h"
#include "tests/unit/platform/linux/private_mounts.h"
#include "tests/unit/platform/linux/process_with_input.h"
#include "tests/unit/platform/linux/pseudo_terminal.h"
#include "tests/unit/platform/linux/temporary_tree.h"

namespace corvane {
namespace {

using Path = std::optional<std::string>;

std::function<int()> opening(const std::string& path, int flags = O_RDWR) {
    return [=] { return ::open(path.c_str(), flags | O_NOCTTY | O_CLOEXEC); };
}

std::string contentOf(SystemResult<DescriptorGuard> opened) {
    if (!opened.ok()) {
        return "error " + std::to_string(opened.error());
    }
    std::array<char, 64> content{};
    const ssize_t count = ::read(opened.value().borrow(), content.data(), content.size());
    return count < 0 ? "unreadable" : std::string(content.data(), static_cast<std::size_t>(count));
}

class ProcessInformationTest : public testing::Test {
 protected:
    TemporaryTree tree_;
    LinuxProcessInformation information_;
};

TEST_F(ProcessInformationTest, TellsAndOpensAFile) {
    tree_.makeFile("file", "content");
    const ProcessWithInput process(opening(tree_.path("file")));
    EXPECT_EQ(information_.inputPath(process.id()), Path(tree_.path("file")));
    EXPECT_EQ(contentOf(information_.openInput(process.id())), "content");
}

TEST_F(ProcessInformationTest, TellsOfAnInputThatCannotBeRead) {
    tree_.makeFile("file", "content");
    const ProcessWithInput process(opening(tree_.path("file"), O_WRONLY));
    EXPECT_EQ(information_.inputPath(process.id()), Path(tree_.path("file")));
    EXPECT_EQ(contentOf(information_.openInput(process.id())), "content");
}

TEST_F(ProcessInformationTest, OpensTheFileAndNotWhatStandsAtItsPathNow) {
    tree_.makeFile("file", "the one");
    const ProcessWithInput process(opening(tree_.path("file")));
    std::filesystem::rename(tree_.path("file"), tree_.path("renamed"));
    tree_.makeFile("file", "another");
    EXPECT_EQ(information_.inputPath(process.id()), Path(tree_.path("renamed")));
    EXPECT_EQ(contentOf(information_.openInput(process.id())), "the one");
}

TEST_F(ProcessInformationTest, OpensADeletedFile) {
    tree_.makeFile("file", "content");
    const ProcessWithInput process(opening(tree_.path("file")));
    std::filesystem::remove(tree_.path("file"));
    EXPECT_EQ(information_.inputPath(process.id()), Path(tree_.path("file") + " (deleted)"));
    EXPECT_EQ(contentOf(information_.openInput(process.id())), "content");
}

TEST_F(ProcessInformationTest, OpensTheFileOfAProcessWithOtherMounts) {
    if (const std::string reason = whyNoPrivateMounts(); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    tree_.makeFile("folder/file", "outside");
    const ProcessWithInput process([this] {
        const std::string folder = tree_.path("folder");
        if (::unshare(CLONE_NEWNS) != 0 ||
            ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("tmpfs", folder.c_str(), "tmpfs", 0, nullptr) != 0) {
            ::_exit(1);
        }
        tree_.makeFile("folder/file", "inside");
        return opening(tree_.path("folder/file"))();
    });
    EXPECT_EQ(information_.inputPath(process.id()), Path(tree_.path("folder/file")));
    EXPECT_EQ(contentOf(information_.openInput(process.id())), "inside");
}

TEST_F(ProcessInformationTest, OpensATerminalWhoseSizeCanBeAsked) {
    const PseudoTerminal terminal;
    const ProcessWithInput process(opening(terminal.path()));
    EXPECT_EQ(information_.inputPath(process.id()), Path(terminal.path()));
    auto opened = information_.openInput(process.id());
    ASSERT_TRUE(opened.ok()) << opened.error();
    const winsize wanted{24, 80, 0, 0};
    EXPECT_EQ(::ioctl(opened.value().borrow(), TIOCSWINSZ, &wanted), 0);
    winsize size{};
    EXPECT_EQ(::ioctl(opened.value().borrow(), TIOCGWINSZ, &size), 0);
    EXPECT_EQ(size.ws_col, 80);
}

TEST_F(ProcessInformationTest, ATerminalDoesNotBecomeOurControllingTerminal) {
    const PseudoTerminal terminal;
    const ProcessWithInput process(opening(terminal.path()));
    EXPECT_EQ(exitStatusOf([&] {
                  if (::setsid() < 0) {
                      ::_exit(1);
                  }
                  const auto opened = information_.openInput(process.id());
                  if (!opened.ok()) {
                      ::_exit(2);
                  }
                  if (::open("/dev/tty", O_RDWR | O_CLOEXEC) >= 0 || errno != ENXIO) {
                      ::_exit(3);
                  }
              }),
              120);
}

TEST_F(ProcessInformationTest, WhatIsOpenedIsForReadingDoesNotBlockAndIsNotInherited) {
    // Opening a FIFO without a writer waits for one, unless it is told not to.
    ASSERT_EQ(::mkfifo(tree_.path("fifo").c_str(), 0600), 0);
    const ProcessWithInput process(opening(tree_.path("fifo"), O_RDONLY | O_NONBLOCK));
    EXPECT_EQ(information_.inputPath(process.id()), Path(tree_.path("fifo")));
    auto opened = information_.openInput(process.id());
    ASSERT_TRUE(opened.ok()) << opened.error();
    EXPECT_EQ(::fcntl(opened.value().borrow(), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(::fcntl(opened.value().borrow(), F_GETFL) & (O_ACCMODE | O_NONBLOCK),
              O_RDONLY | O_NONBLOCK);
}

TEST_F(ProcessInformationTest, APipeHasNoPath) {
    const ProcessWithInput process([] {
        std::array<int, 2> ends{};
        return ::pipe2(ends.data(), O_CLOEXEC) == 0 ? ends[0] : -1;
    });
    EXPECT_EQ(information_.inputPath(process.id()), std::nullopt);
    EXPECT_TRUE(information_.openInput(process.id()).ok());
}

TEST_F(ProcessInformationTest, ASocketHasNoPathAndCannotBeOpened) {
    const ProcessWithInput process([] { return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0); });
    EXPECT_EQ(information_.inputPath(process.id()), std::nullopt);
    EXPECT_EQ(information_.openInput(process.id()).error(), ENXIO);
}

TEST_F(ProcessInformationTest, AnEventDescriptorHasNoPath) {
    const ProcessWithInput process([] { return ::eventfd(0, EFD_CLOEXEC); });
    EXPECT_EQ(information_.inputPath(process.id()), std::nullopt);
}

TEST_F(ProcessInformationTest, AClosedInputIsNothing) {
    const ProcessWithInput process([] { return -1; });
    EXPECT_EQ(information_.inputPath(process.id()), std::nullopt);
    EXPECT_EQ(information_.openInput(process.id()).error(), ENOENT);
}

TEST_F(ProcessInformationTest, AZombieAndAProcessThatHasGoneAreNothing) {
    tree_.makeFile("file", "content");
    ProcessWithInput process(opening(tree_.path("file")));
    ASSERT_TRUE(information_.inputPath(process.id()));
    process.end();
    // A zombie's descriptors belong to root, who alone is told that there are none.
    EXPECT_EQ(information_.inputPath(process.id()), std::nullopt);
    EXPECT_EQ(information_.openInput(process.id()).error(), ::geteuid() == 0 ? ENOENT : EACCES);
    process.collect();
    EXPECT_EQ(information_.inputPath(process.id()), std::nullopt);
    EXPECT_EQ(information_.openInput(process.id()).error(), ENOENT);
}

TEST_F(ProcessInformationTest, NumbersThatAreNoProcessAreNothing) {
    // Were they taken into a path, /proc would be searched for them: this one has them all.
    for (const char* name : {"0", "-1", "-2147483648"}) {
        tree_.makeLink(std::string(name) + "/fd/0", "/dev/null");
    }
    LinuxProcessInformation information(tree_.path());
    for (const pid_t number : {0, -1, std::numeric_limits<pid_t>::min()}) {
        EXPECT_EQ(information.inputPath(number), std::nullopt) << number;
        EXPECT_EQ(information.openInput(number).error(), ESRCH) << number;
    }
}

TEST_F(ProcessInformationTest, OnlyWhatBeginsWithASlashIsAPath) {
    LinuxProcessInformation information(tree_.path());
    pid_t number = 1;
    for (const char* target : {"pipe:[4026]", "socket:[4026]", "anon_inode:[eventpoll]",
                               "net:[4026531840]", "(unreachable)/file", "relative/file"}) {
        tree_.makeLink(std::to_string(number) + "/fd/0", target);
        EXPECT_EQ(information.inputPath(number), std::nullopt) << target;
        ++number;
    }
    tree_.makeLink(std::to_string(number) + "/fd/0", "/");
    EXPECT_EQ(information.inputPath(number), Path("/"));
}

TEST_F(ProcessInformationTest, ALongPathIsCut) {
    LinuxProcessInformation information(tree_.path());
    pid_t number = 1;
    for (const std::size_t length : {1022U, 1023U, 1024U, 4000U}) {
        const std::string path = "/" + std::string(length - 1, 'p');
        tree_.makeLink(std::to_string(number) + "/fd/0", path);
        EXPECT_EQ(information.inputPath(number), Path(path.substr(0, 1023))) << length;
        ++number;
    }
}

TEST_F(ProcessInformationTest, TheFileOfALongPathIsOpened) {
    std::string folders;
    while (tree_.path(folders).size() < 1500) {
        folders += std::string(200, 'f') + "/";
    }
    tree_.makeFile(folders + "file", "content");
    const std::string path = tree_.path(folders + "file");
    const ProcessWithInput process(opening(path));
    EXPECT_EQ(information_.inputPath(process.id()), Path(path.substr(0, 1023)));
    EXPECT_EQ(contentOf(information_.openInput(process.id())), "content");
}

TEST_F(ProcessInformationTest, WithoutAProcNothingIsKnown) {
    LinuxProcessInformation information(tree_.path("missing"));
    EXPECT_EQ(information.inputPath(::getpid()), std::nullopt);
    EXPECT_EQ(information.openInput(::getpid()).error(), ENOENT);
}

TEST_F(ProcessInformationTest, TheFakeOpensAlike) {
    tree_.makeFile("file", "content");
    const ProcessWithInput process(opening(tree_.path("file")));
    FakeProcessInformation fake;
    fake.inputs[process.id()] = {tree_.path("file"), tree_.path("file")};
    ProcessInformation* const both[] = {&information_, &fake};
    for (ProcessInformation* information : both) {
        EXPECT_EQ(information->inputPath(process.id()), Path(tree_.path("file")));
        auto opened = information->openInput(process.id());
        ASSERT_TRUE(opened.ok());
        EXPECT_EQ(::fcntl(opened.value().borrow(), F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(::fcntl(opened.value().borrow(), F_GETFL) & (O_ACCMODE | O_NONBLOCK),
                  O_RDONLY | O_NONBLOCK);
        EXPECT_EQ(contentOf(opened.take()), "content");
        EXPECT_EQ(information->inputPath(-1), std::nullopt);
        EXPECT_FALSE(information->openInput(-1).ok());
    }
}

}  // namespace
}  // namespace corvane
