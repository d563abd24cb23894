#include "platform/linux/linux_private_directory.h"

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <map>
#include <string>

#include <gtest/gtest.h>

#include "tests/fakes/child_process.h"
#include "tests/fakes/fake_process_services.h"
#include "tests/unit/platform/linux/temporary_tree.h"

namespace corvane {
namespace {

constexpr uid_t someUser = 65534;

struct stat statusOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status;
}

mode_t modeOf(const std::string& path) {
    return statusOf(path).st_mode & 07777;
}

/// Sets the umask for a scope.
class UmaskScope {
 public:
    explicit UmaskScope(mode_t mask) : before_(::umask(mask)) {}
    ~UmaskScope() { ::umask(before_); }
    UmaskScope(const UmaskScope&) = delete;
    UmaskScope& operator=(const UmaskScope&) = delete;

 private:
    mode_t before_;
};

const char* nothing(const char* /*name*/) {
    return nullptr;
}

/// The directory of root, which is the agent's own.
class DirectoryOfRoot : public testing::Test {
 protected:
    void SetUp() override {
        if (::geteuid() != 0) {
            GTEST_SKIP() << "only root has a directory of the agent's own";
        }
    }

    void makePrivate() const { ASSERT_EQ(::mkdir(path_.c_str(), 0700), 0); }

    TemporaryTree tree_;
    std::string path_ = tree_.path("corvane");
    LinuxPrivateDirectory directory_{path_, nothing};
};

TEST_F(DirectoryOfRoot, IsMadeForItsOwnerAlone) {
    const UmaskScope everythingAllowed(0);
    auto prepared = directory_.prepare();
    ASSERT_TRUE(prepared.ok()) << prepared.error();
    EXPECT_EQ(prepared.value(), path_);
    EXPECT_TRUE(S_ISDIR(statusOf(path_).st_mode));
    EXPECT_EQ(modeOf(path_), 0700U);
    EXPECT_EQ(statusOf(path_).st_uid, ::geteuid());
}

TEST_F(DirectoryOfRoot, IsTakenAsItIsWhenItIsPrivate) {
    makePrivate();
    tree_.makeFile("corvane/stdout_0", "kept");
    for (int time = 0; time < 2; ++time) {
        auto prepared = directory_.prepare();
        ASSERT_TRUE(prepared.ok()) << prepared.error();
        EXPECT_EQ(prepared.value(), path_);
    }
    EXPECT_EQ(statusOf(path_ + "/stdout_0").st_size, 4);
}

TEST_F(DirectoryOfRoot, IsMadeAgainWhenItHasVanished) {
    ASSERT_TRUE(directory_.prepare().ok());
    std::filesystem::remove_all(path_);
    ASSERT_TRUE(directory_.prepare().ok());
    EXPECT_EQ(modeOf(path_), 0700U);
}

TEST_F(DirectoryOfRoot, IsCheckedEachTime) {
    ASSERT_TRUE(directory_.prepare().ok());
    ASSERT_EQ(::chmod(path_.c_str(), 0770), 0);
    EXPECT_EQ(directory_.prepare().error(), EPERM);
    ASSERT_EQ(::chmod(path_.c_str(), 0700), 0);
    EXPECT_TRUE(directory_.prepare().ok());
}

TEST_F(DirectoryOfRoot, IsRefusedWithAnyRightForOthersAndLeftAsItIs) {
    makePrivate();
    tree_.makeFile("corvane/file", "kept");
    for (const mode_t right : {001U, 002U, 004U, 010U, 020U, 040U, 077U}) {
        ASSERT_EQ(::chmod(path_.c_str(), 0700 | right), 0);
        EXPECT_EQ(directory_.prepare().error(), EPERM) << right;
        EXPECT_EQ(modeOf(path_), 0700 | right);
    }
    EXPECT_EQ(statusOf(path_ + "/file").st_size, 4);
}

TEST_F(DirectoryOfRoot, IsRefusedWhenItBelongsToAnother) {
    makePrivate();
    ASSERT_EQ(::chown(path_.c_str(), someUser, static_cast<gid_t>(-1)), 0);
    EXPECT_EQ(directory_.prepare().error(), EPERM);
    EXPECT_EQ(statusOf(path_).st_uid, someUser);
    EXPECT_EQ(modeOf(path_), 0700U);
}

TEST_F(DirectoryOfRoot, IsNotFoundBehindALink) {
    tree_.makeDirectory("good");
    ASSERT_EQ(::chmod(tree_.path("good").c_str(), 0700), 0);
    tree_.makeLink("corvane", "good");
    // The kernel names either: it is a link, and a link is no directory.
    const int error = directory_.prepare().error();
    EXPECT_TRUE(error == ENOTDIR || error == ELOOP) << error;
    EXPECT_TRUE(S_ISLNK(statusOf(path_).st_mode));
    EXPECT_TRUE(std::filesystem::is_empty(tree_.path("good")));
}

TEST_F(DirectoryOfRoot, IsNotMadeThroughALinkToNothing) {
    tree_.makeLink("corvane", "missing");
    EXPECT_FALSE(directory_.prepare().ok());
    EXPECT_FALSE(std::filesystem::exists(tree_.path("missing")));
}

TEST_F(DirectoryOfRoot, MustBeADirectory) {
    tree_.makeFile("corvane", "kept");
    ASSERT_EQ(::chmod(path_.c_str(), 0700), 0);
    EXPECT_EQ(directory_.prepare().error(), ENOTDIR);
    EXPECT_EQ(statusOf(path_).st_size, 4);
}

TEST_F(DirectoryOfRoot, CannotBeMadeWithoutAPlaceForIt) {
    LinuxPrivateDirectory directory(tree_.path("missing/corvane"), nothing);
    EXPECT_EQ(directory.prepare().error(), ENOENT);
}

TEST_F(DirectoryOfRoot, DoesNotDependOnTheEnvironment) {
    LinuxPrivateDirectory directory(path_, [](const char*) { return "/elsewhere"; });
    auto prepared = directory.prepare();
    ASSERT_TRUE(prepared.ok());
    EXPECT_EQ(prepared.value(), path_);
}

/// The directory of another user, which its environment names.
class DirectoryOfAUser : public testing::Test {
 protected:
    [[nodiscard]] std::string makeFolder(const std::string& name, mode_t mode = 0700) const {
        tree_.makeDirectory(name);
        std::string path = tree_.path(name);
        EXPECT_EQ(::chmod(path.c_str(), mode), 0);
        if (::geteuid() == 0) {
            EXPECT_EQ(::chown(path.c_str(), user_, static_cast<gid_t>(-1)), 0);
        }
        return path;
    }

    const char* find(const std::string& name) const {
        const auto found = variables_.find(name);
        return found == variables_.end() ? nullptr : found->second.c_str();
    }

    TemporaryTree tree_;
    std::map<std::string, std::string> variables_;
    uid_t user_ = ::geteuid() == 0 ? someUser : ::geteuid();
    LinuxPrivateDirectory directory_{tree_.path("not-for-users"),
                                     [this](const char* name) { return find(name); }, user_};
};

TEST_F(DirectoryOfAUser, IsThatOfTheSession) {
    variables_ = {{"XDG_RUNTIME_DIR", makeFolder("session")}, {"TMPDIR", makeFolder("other")}};
    auto prepared = directory_.prepare();
    ASSERT_TRUE(prepared.ok()) << prepared.error();
    EXPECT_EQ(prepared.value(), tree_.path("session"));
    EXPECT_FALSE(std::filesystem::exists(tree_.path("not-for-users")));
}

TEST_F(DirectoryOfAUser, IsTheOneForTemporaryFilesWithoutASession) {
    const std::string path = makeFolder("temporary");
    for (const char* unset : {"", "session", "./session"}) {
        variables_ = {{"XDG_RUNTIME_DIR", unset}, {"TMPDIR", path}};
        auto prepared = directory_.prepare();
        ASSERT_TRUE(prepared.ok()) << prepared.error();
        EXPECT_EQ(prepared.value(), path);
    }
    variables_ = {{"TMPDIR", path}};
    EXPECT_TRUE(directory_.prepare().ok());
}

TEST_F(DirectoryOfAUser, IsNotGuessed) {
    EXPECT_EQ(directory_.prepare().error(), ENOENT);
    variables_ = {{"XDG_RUNTIME_DIR", "relative"}, {"TMPDIR", "."}};
    EXPECT_EQ(directory_.prepare().error(), ENOENT);
}

TEST_F(DirectoryOfAUser, IsNotReplacedByTheOtherWhenItIsRefused) {
    variables_ = {{"XDG_RUNTIME_DIR", makeFolder("session", 0755)},
                  {"TMPDIR", makeFolder("temporary")}};
    EXPECT_EQ(directory_.prepare().error(), EPERM);
    EXPECT_EQ(modeOf(tree_.path("session")), 0755U);
}

TEST_F(DirectoryOfAUser, IsNotMade) {
    variables_ = {{"XDG_RUNTIME_DIR", tree_.path("missing")}};
    EXPECT_EQ(directory_.prepare().error(), ENOENT);
    EXPECT_FALSE(std::filesystem::exists(tree_.path("missing")));
}

TEST_F(DirectoryOfAUser, IsNotFoundBehindALinkWhateverFollowsItsName) {
    static_cast<void>(makeFolder("good"));
    tree_.makeLink("link", "good");
    for (const char* end : {"", "/", "//"}) {
        variables_ = {{"XDG_RUNTIME_DIR", tree_.path("link") + end}};
        const int error = directory_.prepare().error();
        EXPECT_TRUE(error == ENOTDIR || error == ELOOP) << error;
        variables_ = {{"XDG_RUNTIME_DIR", tree_.path("good") + end}};
        EXPECT_TRUE(directory_.prepare().ok());
    }
}

TEST_F(DirectoryOfAUser, IsRefusedWhenAllMayWriteThere) {
    variables_ = {{"TMPDIR", makeFolder("shared", 01777)}};
    EXPECT_EQ(directory_.prepare().error(), EPERM);
    variables_ = {{"TMPDIR", "/"}};
    EXPECT_EQ(directory_.prepare().error(), EPERM);
}

TEST_F(DirectoryOfAUser, IsRefusedWhenItBelongsToRoot) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can make a directory that is not this user's";
    }
    variables_ = {{"TMPDIR", makeFolder("of-root")}};
    ASSERT_EQ(::chown(tree_.path("of-root").c_str(), 0, 0), 0);
    EXPECT_EQ(directory_.prepare().error(), EPERM);
}

TEST_F(DirectoryOfAUser, IsChosenByTheUserThatTheAgentRunsAs) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    const std::string path = makeFolder("session");
    ASSERT_EQ(::chmod(tree_.path().c_str(), 0755), 0);
    EXPECT_EQ(
        exitStatusOf([&] {
            if (::setuid(someUser) != 0 || ::setenv("XDG_RUNTIME_DIR", path.c_str(), 1) != 0) {
                ::_exit(1);
            }
            auto prepared = LinuxPrivateDirectory().prepare();
            ::_exit(prepared.ok() && prepared.value() == path ? 0 : 2);
        }),
        0);
}

TEST(FakePrivateDirectory, IsPrivateToo) {
    FakePrivateDirectory directory;
    auto prepared = directory.prepare();
    ASSERT_TRUE(prepared.ok());
    EXPECT_EQ(prepared.value().front(), '/');
    EXPECT_TRUE(S_ISDIR(statusOf(prepared.value()).st_mode));
    EXPECT_EQ(modeOf(prepared.value()), 0700U);
    EXPECT_EQ(statusOf(prepared.value()).st_uid, ::geteuid());
    EXPECT_EQ(directory.prepare().value(), prepared.value());
}

}  // namespace
}  // namespace corvane
