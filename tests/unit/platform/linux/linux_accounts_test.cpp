#include "platform/linux/linux_accounts.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "platform/linux/account_lookup.h"
#include "tests/fakes/fake_process_services.h"
#include "tests/unit/platform/linux/private_mounts.h"

namespace corvane {
namespace {

constexpr id_t unusedId = 4294967294;  // -2
constexpr char unusedName[] = "corvane-no-such-name";

/// What holds for every database of accounts that knows root.
template <typename Service>
class AccountsContract : public testing::Test {
 protected:
    Service service_;
};

using Services = testing::Types<LinuxAccounts, FakeAccounts>;
TYPED_TEST_SUITE(AccountsContract, Services);

TYPED_TEST(AccountsContract, KnowsRoot) {
    for (auto found : {this->service_.userById(0), this->service_.userByName("root"),
                       this->service_.groupById(0), this->service_.groupByName("root")}) {
        ASSERT_TRUE(found.ok()) << found.error();
        EXPECT_EQ(found.value(), std::optional<uid_t>(0));
    }
}

TYPED_TEST(AccountsContract, WhatDoesNotExistIsNoError) {
    for (auto found : {this->service_.userById(unusedId), this->service_.userByName(unusedName),
                       this->service_.groupById(unusedId), this->service_.groupByName(unusedName),
                       this->service_.userByName(""), this->service_.groupByName("")}) {
        ASSERT_TRUE(found.ok()) << found.error();
        EXPECT_EQ(found.value(), std::nullopt);
    }
}

TYPED_TEST(AccountsContract, ANameIsNotCutAtANulByte) {
    using namespace std::string_literals;
    for (const std::string& name : {"root\0"s, "root\0x"s, "\0"s, "\0root"s}) {
        for (auto found : {this->service_.userByName(name), this->service_.groupByName(name)}) {
            ASSERT_TRUE(found.ok()) << found.error();
            EXPECT_EQ(found.value(), std::nullopt);
        }
    }
}

/// Runs `body` where /etc holds nothing but the advice to look into its files.
std::string withOwnDatabase(const std::function<std::string()>& body) {
    return withPrivateMounts({"/etc"}, [&]() -> std::string {
        std::ofstream("/etc/nsswitch.conf") << "passwd: files\ngroup: files\n";
        return body();
    });
}

/// The errors of all four lookups, of entries that every database has.
std::string errorsOfLookups() {
    LinuxAccounts accounts;
    std::string errors;
    for (auto found : {accounts.userById(0), accounts.userByName("root"), accounts.groupById(0),
                       accounts.groupByName("root")}) {
        errors +=
            found.ok() ? (found.value() ? "found " : "none ") : std::to_string(found.error()) + " ";
    }
    return errors;
}

TEST(LinuxAccounts, ADatabaseThatCannotBeReadIsAnError) {
    if (const std::string reason = whyNoPrivateMounts(); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    const std::string error = std::to_string(ELOOP) + " ";
    EXPECT_EQ(withOwnDatabase([] {
                  std::filesystem::create_symlink("passwd", "/etc/passwd");
                  std::filesystem::create_symlink("group", "/etc/group");
                  return errorsOfLookups();
              }),
              error + error + error + error);
}

TEST(LinuxAccounts, ADatabaseThatIsMissingHasNoEntries) {
    if (const std::string reason = whyNoPrivateMounts(); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    EXPECT_EQ(withOwnDatabase(errorsOfLookups), "none none none none ");
}

TEST(LinuxAccounts, TheIdIsThatOfTheEntry) {
    if (const std::string reason = whyNoPrivateMounts(); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    EXPECT_EQ(withOwnDatabase([]() -> std::string {
                  std::ofstream("/etc/passwd") << "someone:x:1234:5678::/:/bin/sh\n"
                                                  "large:x:4294967294:1::/:/bin/sh\n";
                  std::ofstream("/etc/group") << "some:x:8765:someone\n";
                  LinuxAccounts accounts;
                  const bool right = accounts.userByName("someone").value() == 1234U &&
                                     accounts.userById(1234).value() == 1234U &&
                                     accounts.userByName("large").value() == 4294967294U &&
                                     accounts.userById(4294967294).value() == 4294967294U &&
                                     accounts.groupByName("some").value() == 8765U &&
                                     accounts.groupById(8765).value() == 8765U &&
                                     !accounts.groupById(5678).value();
                  return right ? "" : "wrong";
              }),
              "");
}

TEST(AccountLookup, TheNameServicesWaysToSayThatThereIsNoSuchEntry) {
    for (const int error : {0, ENOENT, ESRCH, EBADF, EPERM}) {
        EXPECT_TRUE(meansNoEntry(error)) << error;
    }
    for (const int error : {EIO, EMFILE, ENFILE, ENOMEM, ERANGE, EINTR, EAGAIN, EACCES,
                            ECONNREFUSED, ETIMEDOUT, -1}) {
        EXPECT_FALSE(meansNoEntry(error)) << error;
    }
}

struct Entry {
    uid_t id;
};

TEST(AccountLookup, AnOldErrorDoesNotCount) {
    errno = EIO;
    auto found = lookUp(&Entry::id, []() -> Entry* { return nullptr; });
    ASSERT_TRUE(found.ok()) << found.error();
    EXPECT_EQ(found.value(), std::nullopt);
}

TEST(AccountLookup, AnErrorBesideAnEntryDoesNotCount) {
    Entry entry{7};
    auto found = lookUp(&Entry::id, [&] {
        errno = EIO;
        return &entry;
    });
    ASSERT_TRUE(found.ok()) << found.error();
    EXPECT_EQ(found.value(), std::optional<uid_t>(7));
}

TEST(AccountLookup, AFailureIsToldAsItIs) {
    for (const int error : {EIO, EMFILE, ENOMEM, ERANGE}) {
        auto found = lookUp(&Entry::id, [=]() -> Entry* {
            errno = error;
            return nullptr;
        });
        EXPECT_EQ(found.error(), error);
    }
}

TEST(AccountLookup, AnInterruptedOneIsRepeated) {
    Entry entry{7};
    int times = 0;
    auto found = lookUp(&Entry::id, [&]() -> Entry* {
        errno = EINTR;
        return ++times < 3 ? nullptr : &entry;
    });
    EXPECT_EQ(times, 3);
    ASSERT_TRUE(found.ok()) << found.error();
    EXPECT_EQ(found.value(), std::optional<uid_t>(7));
}

}  // namespace
}  // namespace corvane
