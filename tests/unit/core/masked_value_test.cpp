#include "core/masked_value.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "core/descriptor_guard.h"
#include "core/json_writer.h"

namespace corvane {
namespace {

JsonValue textOf(std::size_t size, char last = 'x') {
    std::string text(size, 'x');
    text.back() = last;
    return text;
}

TEST(MaskedValue, ShowsSixteenHexadecimalDigits) {
    const JsonValue value = std::string("secret");
    const std::string mask = maskedValue(&value);
    EXPECT_EQ(mask.size(), 26U);
    EXPECT_TRUE(mask.starts_with("<masked: "));
    EXPECT_TRUE(mask.ends_with(">"));
    EXPECT_EQ(mask.find_first_not_of("0123456789abcdef", 9), 25U);
    EXPECT_EQ(mask.find("secret"), std::string::npos);
}

TEST(MaskedValue, IsTheSameForEqualValues) {
    for (const std::size_t size :
         {1U, 100U, 1020U, 1021U, 1022U, 1023U, 1024U, 5000U, 3'000'000U}) {
        const JsonValue one = JsonArray{textOf(size)};
        const JsonValue two = JsonArray{textOf(size)};
        EXPECT_EQ(maskedValue(&one), maskedValue(&two)) << size;
    }
}

TEST(MaskedValue, DiffersForDifferentValues) {
    std::set<std::uint64_t> hashes = {maskedHash(nullptr)};
    std::size_t count = 1;
    for (const std::size_t size :
         {1U, 2U, 100U, 1020U, 1021U, 1022U, 1023U, 1024U, 5000U, 3'000'000U}) {
        for (const char last : {'a', 'b', '\n'}) {
            const JsonValue value = textOf(size, last);
            hashes.insert(maskedHash(&value));
            ++count;
        }
    }
    for (const JsonValue& value :
         {JsonValue(), JsonValue(JsonArray()), JsonValue(JsonObject()),
          JsonValue(JsonNumber::fromUnsigned(1)), JsonValue(JsonNumber::fromBoolean(true)),
          JsonValue(JsonNumber::fromUnsigned(0)), JsonValue(std::string())}) {
        hashes.insert(maskedHash(&value));
        ++count;
    }
    EXPECT_EQ(hashes.size(), count);
}

TEST(MaskedValue, SeesAChangeAnywhereInALongValue) {
    std::set<std::uint64_t> hashes;
    for (std::size_t at = 0; at < 20'000; at += 97) {
        std::string text(20'000, 'x');
        text[at] = 'y';
        const JsonValue value = text;
        hashes.insert(maskedHash(&value));
    }
    EXPECT_EQ(hashes.size(), 207U);
}

TEST(MaskedValue, DependsOnTheTextAloneAndNotOnItsPieces) {
    // One element of 3000 bytes against many of a few: another text, but of a known hash each.
    JsonArray many;
    for (int i = 0; i < 1000; ++i) {
        many.push_back(JsonNumber::fromUnsigned(7));
    }
    const JsonValue one = many;
    JsonObject object;
    object.add("k", std::move(many));
    const JsonValue other = object;
    EXPECT_EQ(maskedHash(&one), maskedHash(object.find("k")));
    EXPECT_NE(maskedHash(&one), maskedHash(&other));
}

constexpr char childVariable[] = "CORVANE_TEST_MASKS_TO";

/// Writes the masks of two values, a short and a long one, in a process of their own.
/// Disabled because another test runs it, by starting this program again.
TEST(MaskedValueChild, DISABLED_WritesItsMasks) {
    const char* descriptor = std::getenv(childVariable);
    ASSERT_NE(descriptor, nullptr);
    const JsonValue small = std::string("secret");
    const JsonValue large = textOf(5000);
    makeMaskingKey();
    const std::string masks = maskedValue(&small) + maskedValue(&large);
    EXPECT_EQ(masks, maskedValue(&small) + maskedValue(&large));
    ASSERT_EQ(::write(std::atoi(descriptor), masks.data(), masks.size()),
              static_cast<ssize_t>(masks.size()));
}

std::string masksOfAnotherProcess() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        return {};
    }
    const DescriptorGuard input(ends[0]);
    DescriptorGuard output(ends[1]);
    const pid_t child = ::fork();
    if (child == 0) {
        // The child's own report goes nowhere, its masks to the pipe.
        const std::string masks = std::to_string(::dup(output.borrow()));
        ::setenv(childVariable, masks.c_str(), 1);
        ::dup2(::open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
        ::execl("/proc/self/exe", "masks", "--gtest_also_run_disabled_tests",
                "--gtest_filter=MaskedValueChild.*", nullptr);
        ::_exit(127);
    }
    output.closeNow();
    std::string text;
    std::array<char, 256> buffer;
    for (ssize_t got = 0; (got = ::read(input.borrow(), buffer.data(), buffer.size())) > 0;) {
        text.append(buffer.data(), static_cast<std::size_t>(got));
    }
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    return text;
}

TEST(MaskedValue, DiffersFromProcessToProcess) {
    const std::string one = masksOfAnotherProcess();
    const std::string two = masksOfAnotherProcess();
    ASSERT_EQ(one.size(), 52U);
    ASSERT_EQ(two.size(), 52U);
    EXPECT_NE(one.substr(0, 26), two.substr(0, 26));
    EXPECT_NE(one.substr(26), two.substr(26));
}

}  // namespace
}  // namespace corvane
