#include "platform/linux/input_folder.h"

#include <poll.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "tests/fakes/child_process.h"
#include "tests/unit/platform/linux/temporary_tree.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;

class InputFolderTest : public testing::Test {
 protected:
    /// Whether any of what has happened concerns the devices.
    bool takeAll() {
        bool concernsDevices = false;
        pollfd notices{folder_.descriptor(), POLLIN, 0};
        while (::poll(&notices, 1, 0) == 1) {
            concernsDevices = folder_.takeNotices() || concernsDevices;
        }
        return concernsDevices;
    }

    TemporaryTree tree_;
    InputFolder folder_{tree_.path(), "input"};
};

TEST_F(InputFolderTest, ADeviceThatComesIsTold) {
    tree_.makeDirectory("input");
    ASSERT_TRUE(folder_.watch());
    EXPECT_TRUE(folder_.isWatchedWhole());
    EXPECT_FALSE(takeAll());
    tree_.makeFile("input/event0", "");
    EXPECT_TRUE(takeAll());
    EXPECT_FALSE(takeAll());
}

TEST_F(InputFolderTest, ADeviceThatIsMovedInOrGetsAnotherModeIsTold) {
    tree_.makeDirectory("input");
    tree_.makeFile("elsewhere/event0", "");
    ASSERT_TRUE(folder_.watch());
    fs::rename(tree_.path("elsewhere/event0"), tree_.path("input/event0"));
    EXPECT_TRUE(takeAll());
    fs::permissions(tree_.path("input/event0"), fs::perms::owner_read);
    EXPECT_TRUE(takeAll());
}

TEST_F(InputFolderTest, WhatElseComesToTheParentIsNotTold) {
    tree_.makeDirectory("input");
    ASSERT_TRUE(folder_.watch());
    tree_.makeFile("vport1p1", "");
    tree_.makeDirectory("input2");
    tree_.makeDirectory("inpu");
    EXPECT_FALSE(takeAll());
}

TEST_F(InputFolderTest, TheFolderIsToldWhenItComes) {
    ASSERT_TRUE(folder_.watch());
    EXPECT_TRUE(folder_.isWatchedWhole());
    tree_.makeDirectory("input");
    EXPECT_TRUE(takeAll());
    ASSERT_TRUE(folder_.watch());
    tree_.makeFile("input/event0", "");
    EXPECT_TRUE(takeAll());
}

TEST_F(InputFolderTest, TheFolderIsToldWhenItGoesAndWhenItComesAgain) {
    tree_.makeDirectory("input");
    ASSERT_TRUE(folder_.watch());
    fs::remove(tree_.path("input"));
    EXPECT_TRUE(takeAll());
    ASSERT_TRUE(folder_.watch());
    tree_.makeDirectory("input");
    EXPECT_TRUE(takeAll());
    ASSERT_TRUE(folder_.watch());
    tree_.makeFile("input/event0", "");
    EXPECT_TRUE(takeAll());
}

TEST_F(InputFolderTest, NoticesThatWereLostCountAsAChange) {
    std::size_t limit = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
    ASSERT_GT(limit, 0U);
    ASSERT_TRUE(folder_.watch());
    for (std::size_t count = 0; count <= limit; ++count) {
        // Two names in turn: equal notices become one.
        const std::string path = tree_.path(count % 2 == 0 ? "one" : "other");
        const std::ofstream made(path);
        fs::remove(path);
    }
    tree_.makeDirectory("input");
    EXPECT_TRUE(takeAll());
}

TEST_F(InputFolderTest, NothingCanBeWatchedWithoutTheParent) {
    InputFolder folder(tree_.path("nowhere"), "input");
    EXPECT_FALSE(folder.watch());
}

/// The limit is that of a user namespace of the child's own.
TEST_F(InputFolderTest, WithoutWatchesItSaysThatItIsNotWatchedWholeUntilThereAreSome) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "a process with the sanitizer's thread in it gets no user namespace";
#endif
    tree_.makeDirectory("input");
    EXPECT_EQ(exitStatusOf([this] {
                  if (::unshare(CLONE_NEWUSER) != 0) {
                      ::_exit(2);
                  }
                  const auto allow = [](const char* count) {
                      std::ofstream("/proc/sys/user/max_inotify_watches") << count << std::flush;
                  };
                  InputFolder folder(tree_.path(), "input");
                  allow("1");
                  const bool parentAlone = folder.watch() && !folder.isWatchedWhole();
                  allow("2");
                  ::_exit(parentAlone && folder.watch() && folder.isWatchedWhole() ? 0 : 1);
              }),
              0);
}

TEST_F(InputFolderTest, NothingCanBeWatchedWithoutADescriptor) {
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit none = before;
    none.rlim_cur = 0;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    InputFolder folder(tree_.path(), "input");
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(folder.descriptor(), -1);
    EXPECT_FALSE(folder.watch());
}

}  // namespace
}  // namespace corvane
