#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <spawn.h>
#include <string>

#include <gtest/gtest.h>

#include "platform/linux/linux_accounts.h"
#include "platform/linux/linux_channel_device.h"
#include "platform/linux/linux_firmware.h"
#include "platform/linux/linux_private_directory.h"
#include "platform/linux/linux_process_information.h"
#include "platform/linux/linux_serial_devices.h"
#include "platform/linux/linux_terminals.h"
#include "platform/linux/system_log_choice.h"
#include "tests/unit/platform/linux/private_mounts.h"
#include "tests/unit/platform/linux/process_with_input.h"
#include "tests/unit/platform/linux/pseudo_terminal.h"
#include "tests/unit/platform/linux/temporary_tree.h"

namespace corvane {
namespace {

/// What a program that is started now finds open, its output apart.
std::string descriptorsOfAChild() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        return "no pipe";
    }
    const DescriptorGuard readEnd(ends[0]);
    DescriptorGuard writeEnd(ends[1]);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, writeEnd.borrow(), STDOUT_FILENO);
    std::string program = LIST_DESCRIPTORS_PATH;
    std::array<char*, 2> arguments{program.data(), nullptr};
    pid_t child = -1;
    const int error =
        ::posix_spawn(&child, program.c_str(), &actions, nullptr, arguments.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        return "cannot start " + program;
    }
    writeEnd.closeNow();
    std::string listed;
    std::array<char, 4096> piece;
    for (ssize_t count = 0; (count = ::read(readEnd.borrow(), piece.data(), piece.size())) > 0;) {
        listed.append(piece.data(), static_cast<std::size_t>(count));
    }
    int status = -1;
    return ::waitpid(child, &status, 0) == child && status == 0 ? listed : "the child failed";
}

bool lists(const std::string& listed, int descriptor) {
    return ("\n" + listed).find("\n" + std::to_string(descriptor) + "\n") != std::string::npos;
}

TEST(InheritedDescriptors, TheListShowsADescriptorThatIsInherited) {
    const DescriptorGuard inherited(::open("/dev/null", O_RDWR));
    EXPECT_TRUE(lists(descriptorsOfAChild(), inherited.borrow()));
    ASSERT_EQ(::fcntl(inherited.borrow(), F_SETFD, FD_CLOEXEC), 0);
    EXPECT_FALSE(lists(descriptorsOfAChild(), inherited.borrow()));
}

TEST(InheritedDescriptors, AChildSeesNoneOfAChannelsDescriptors) {
    const std::string before = descriptorsOfAChild();
    ASSERT_TRUE(lists(before, STDOUT_FILENO)) << before;
    const TemporaryTree sys;
    const PseudoTerminal terminal;
    const PseudoTerminal portLike;
    declareVirtioPort(sys, portLike.path());
    LinuxChannelDevice device(sys.path());
    auto serial = device.openSerial(terminal.path().c_str());
    auto port = device.openSerial(portLike.path().c_str());
    ASSERT_TRUE(serial.ok());
    ASSERT_TRUE(port.ok());
    EXPECT_EQ(descriptorsOfAChild(), before);
}

TEST(InheritedDescriptors, TheOtherAdaptersLeaveNothingOpen) {
    const std::string before = descriptorsOfAChild();
    static_cast<void>(LinuxFirmware().bootArgument("x"));
    static_cast<void>(LinuxFirmware().readProperty("/options", "x"));
    static_cast<void>(LinuxSerialDevices().list());
    EXPECT_EQ(descriptorsOfAChild(), before);
}

TEST(InheritedDescriptors, AChildSeesNoneOfThoseThatProgramsAreStartedWith) {
    const std::string before = descriptorsOfAChild();
    ASSERT_TRUE(lists(before, STDOUT_FILENO)) << before;
    const TemporaryTree tree;
    auto pair = LinuxTerminals().openPair({}, winsize{});
    ASSERT_TRUE(pair.ok());
    const PseudoTerminal terminal;
    const ProcessWithInput process(
        [&] { return ::open(terminal.path().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC); });
    auto input = LinuxProcessInformation().openInput(process.id());
    ASSERT_TRUE(input.ok());
    const std::string folder = tree.path();
    LinuxPrivateDirectory directory(tree.path("private"),
                                    [&folder](const char*) { return folder.c_str(); });
    ASSERT_TRUE(directory.prepare().ok());
    LinuxAccounts accounts;
    ASSERT_TRUE(accounts.userByName("root").ok());
    ASSERT_TRUE(accounts.userById(0).ok());
    ASSERT_TRUE(accounts.groupByName("root").ok());
    ASSERT_TRUE(accounts.groupById(0).ok());
    EXPECT_EQ(descriptorsOfAChild(), before);
}

TEST(InheritedDescriptors, AChildSeesNoneOfTheSystemLogsDescriptors) {
    if (const std::string reason = whyNoPrivateMounts(); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    for (const bool withJournal : {true, false}) {
        EXPECT_EQ("", withPrivateMounts({"/run", "/dev"}, [withJournal]() -> std::string {
                      ::mkdir("/run/systemd", 0755);
                      ::mkdir("/run/systemd/journal", 0755);
                      const DescriptorGuard journal =
                          withJournal ? bindDatagramSocket("/run/systemd/journal/socket")
                                      : DescriptorGuard();
                      const DescriptorGuard syslog = bindDatagramSocket("/dev/log");
                      const std::string before = descriptorsOfAChild();
                      const auto log = makeSystemLog();
                      log->createCategories("corvane");
                      log->write(LogCategory::status, "text\n");
                      if (!hasDatagram(journal.borrow()) && !hasDatagram(syslog.borrow())) {
                          return "nothing was logged";
                      }
                      const std::string after = descriptorsOfAChild();
                      return after == before ? "" : "before:\n" + before + "after:\n" + after;
                  }));
    }
}

}  // namespace
}  // namespace corvane
