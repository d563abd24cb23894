#include "core/json_value.h"

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/unit/core/json_helper.h"

namespace corvane {
namespace {

__extension__ using Wide = unsigned __int128;

std::uint64_t bitsOf(const std::string& text) {
    return JsonNumber::fromText(text).asUnsigned64();
}

constexpr std::uint64_t minus(std::uint64_t value) {
    return 0 - value;
}

TEST(JsonNumber, ReadsTheIntegerPartModulo64Bits) {
    struct Case {
        const char* text;
        std::uint64_t bits;
    };
    const std::vector<Case> cases = {
        {"0", 0},
        {"1", 1},
        {"42", 42},
        {"9223372036854775807", INT64_MAX},
        {"9223372036854775808", 9223372036854775808U},
        {"18446744073709551615", UINT64_MAX},
        {"18446744073709551616", 0},
        {"18446744073709551621", 5},
        {"36893488147419103233", 1},
        {"340282366920938463463374607431768211457", 1},
        {"-1", UINT64_MAX},
        {"-9223372036854775808", 9223372036854775808U},
        {"-9223372036854775809", INT64_MAX},
        {"-18446744073709551617", UINT64_MAX},
        {"-0", 0},
        {"-0.5", 0},
        {"-0.0", 0},
        {"-0e5", 0},
        {"0.999999999999999999999999", 0},
        {"2.9", 2},
        {"2.9e0", 2},
        {"-2.9", minus(2)},
        {"2.5e1", 25},
        {"2.5E+1", 25},
        {"12345678901234567890.75", 12345678901234567890U},
        {"18446744073709551621.999", 5},
        {"123456e-3", 123},
        {"123456e-6", 0},
        {"123456e-7", 0},
        {"-123456e-3", minus(123)},
        {"0.00001e5", 1},
        {"0.00001e4", 0},
        {"0.000019e5", 1},
        {"1.5e-1", 0},
        {"99.999e1", 999},
        {"1e0", 1},
        {"1e19", 10000000000000000000U},
        {"1e63", 1U * (std::uint64_t{1} << 63U)},
        {"1e64", 0},
        {"1e400", 0},
        {"1e-400", 0},
        {"1e2147483647", 0},
        {"1e-2147483648", 0},
        {"1e99999999999999999999999999", 0},
        {"1e-99999999999999999999999999", 0},
        {"0e99999999999999999999999999", 0},
        {"1e00000000000000000000000003", 1000},
        {"1e+00000000000000000000000003", 1000},
        {"1000e-00000000000000000000000003", 1},
    };
    for (const auto& [text, bits] : cases) {
        EXPECT_EQ(bitsOf(text), bits) << text;
    }
}

TEST(JsonNumber, MultipliesByPowersOfTenExactly) {
    // 10^30 modulo 2^64, worked out in 128 bits.
    Wide product = 1;
    for (int exponent = 0; exponent <= 30; ++exponent) {
        EXPECT_EQ(bitsOf("1e" + std::to_string(exponent)), static_cast<std::uint64_t>(product));
        EXPECT_EQ(bitsOf("123.45e" + std::to_string(exponent + 2)),
                  static_cast<std::uint64_t>(product * 12345));
        product *= 10;
    }
}

TEST(JsonNumber, AgreesWithArithmeticIn128BitsOnRandomNumbers) {
    std::mt19937_64 random(11);
    for (int round = 0; round < 20000; ++round) {
        std::string digits;
        for (std::size_t size = 1 + random() % 30; digits.size() < size;) {
            digits += static_cast<char>('0' + random() % 10);
        }
        const std::size_t point = random() % (digits.size() + 1);
        // The value is digits * 10^(exponent - behind), cut off; all intermediate results fit.
        const auto behind = static_cast<int>(digits.size() - point);
        const int exponent = static_cast<int>(random() % 16) - 8;
        Wide value = 0;
        for (const char digit : digits) {
            value = value * 10 + static_cast<unsigned>(digit - '0');
        }
        for (int shift = exponent - behind; shift != 0; shift += shift > 0 ? -1 : 1) {
            value = shift > 0 ? value * 10 : value / 10;
        }
        const auto low = static_cast<std::uint64_t>(value);
        const std::string text = digits.substr(0, point) +
                                 (behind > 0 ? "." + digits.substr(point) : std::string()) + "e" +
                                 std::to_string(exponent);
        ASSERT_EQ(bitsOf(text), low) << text;
        ASSERT_EQ(bitsOf("-" + text), minus(low)) << text;
    }
}

TEST(JsonNumber, WrapsIntoNarrowerWidths) {
    const auto number = JsonNumber::fromText("4294967298");
    EXPECT_EQ(number.asUnsigned32(), 2U);
    EXPECT_EQ(number.asSigned32(), 2);
    EXPECT_EQ(JsonNumber::fromText("2147483648").asSigned32(), INT32_MIN);
    EXPECT_EQ(JsonNumber::fromText("-1").asUnsigned32(), UINT32_MAX);
    EXPECT_EQ(JsonNumber::fromText("-1").asSigned64(), -1);
    EXPECT_EQ(JsonNumber::fromText("9223372036854775808").asSigned64(), INT64_MIN);
    EXPECT_EQ(JsonNumber::fromText("255").asSigned8(), -1);
    EXPECT_EQ(JsonNumber::fromText("257").asSigned8(), 1);
}

TEST(JsonNumber, IsTrueUnlessItIsZero) {
    for (const char* text : {"1", "-1", "0.5", "-0.5", "1e-400", "18446744073709551616", "1e400",
                             "0.0000001", "1e-99999999999999999999"}) {
        EXPECT_TRUE(JsonNumber::fromText(text).asBoolean()) << text;
    }
    for (const char* text : {"0", "-0", "0.0", "-0.000", "0e5", "0.0e400"}) {
        EXPECT_FALSE(JsonNumber::fromText(text).asBoolean()) << text;
    }
    EXPECT_TRUE(JsonNumber::fromSigned(-7).asBoolean());
    EXPECT_FALSE(JsonNumber::fromUnsigned(0).asBoolean());
}

TEST(JsonNumber, KnowsItsSign) {
    EXPECT_TRUE(JsonNumber::fromText("-5").isNegative());
    EXPECT_FALSE(JsonNumber::fromText("-0").isNegative());
    EXPECT_FALSE(JsonNumber::fromText("-0.5").isNegative());
    EXPECT_FALSE(JsonNumber::fromText("18446744073709551615").isNegative());
    EXPECT_TRUE(JsonNumber::fromSigned(-1).isNegative());
    EXPECT_FALSE(JsonNumber::fromSigned(1).isNegative());
}

TEST(JsonNumber, TakesABooleanAsOneOrZero) {
    EXPECT_EQ(JsonNumber::fromBoolean(true).asSigned32(), 1);
    EXPECT_EQ(JsonNumber::fromBoolean(false).asUnsigned64(), 0U);
    EXPECT_TRUE(JsonNumber::fromBoolean(true).isBoolean());
    EXPECT_TRUE(JsonNumber::fromBoolean(true).asBoolean());
    EXPECT_FALSE(JsonNumber::fromBoolean(false).asBoolean());
    EXPECT_FALSE(JsonNumber::fromUnsigned(1).isBoolean());
}

TEST(JsonNumber, ReadsMegabytesOfDigitsInLinearTime) {
    const std::string zeros(8U << 20U, '0');
    EXPECT_EQ(bitsOf("7" + zeros), 0U);
    EXPECT_EQ(bitsOf("0." + zeros + "7e" + std::to_string(zeros.size() + 1)), 7U);
    EXPECT_EQ(bitsOf("7" + zeros + "e-" + std::to_string(zeros.size())), 7U);
    EXPECT_EQ(bitsOf("7e" + zeros + "2"), 700U);
}

TEST(JsonObject, FindsTheLastOfSeveralMembersWithOneName) {
    JsonObject object;
    object.add("a", JsonNumber::fromUnsigned(1));
    object.add("b", JsonNumber::fromUnsigned(2));
    object.add("a", JsonNumber::fromUnsigned(3));
    EXPECT_EQ(numberOf(held(object.find("a"))).asUnsigned64(), 3U);
    EXPECT_EQ(numberOf(held(object.find("b"))).asUnsigned64(), 2U);
    EXPECT_EQ(object.find("c"), nullptr);
    EXPECT_EQ(object.find(""), nullptr);
    EXPECT_EQ(object.members().size(), 3U);
}

TEST(JsonObject, ComparesNamesByteByByte) {
    const JsonObject object = {{std::string("a\0b", 3), JsonNumber::fromUnsigned(1)}};
    EXPECT_EQ(object.find("a"), nullptr);
    EXPECT_EQ(object.find("A"), nullptr);
    EXPECT_NE(object.find(std::string_view("a\0b", 3)), nullptr);
}

TEST(JsonValue, LendsWhatItHoldsAndNothingElse) {
    const JsonValue null;
    EXPECT_TRUE(null.isNull());
    EXPECT_EQ(null.number(), nullptr);
    EXPECT_EQ(null.string(), nullptr);
    EXPECT_EQ(null.array(), nullptr);
    EXPECT_EQ(null.object(), nullptr);

    const JsonValue number = JsonNumber::fromUnsigned(1);
    EXPECT_FALSE(number.isNull());
    EXPECT_NE(number.number(), nullptr);
    EXPECT_EQ(number.string(), nullptr);

    const JsonValue text = std::string("x");
    EXPECT_EQ(stringOf(text), "x");
    EXPECT_EQ(text.object(), nullptr);

    const JsonValue array = JsonArray{number, text};
    EXPECT_EQ(arrayOf(array).size(), 2U);
    EXPECT_EQ(array.object(), nullptr);

    const JsonValue object = JsonObject{{"k", null}};
    EXPECT_TRUE(memberOf(object, "k").isNull());
    EXPECT_EQ(object.array(), nullptr);
}

TEST(JsonValue, IsAssignedWhateverItHeld) {
    const JsonValue object = JsonObject{{"k", std::string("v")}};
    JsonValue copy = JsonObject{{"old", JsonValue()}};
    copy = object;
    EXPECT_EQ(stringOf(memberOf(copy, "k")), "v");
    EXPECT_EQ(stringOf(memberOf(object, "k")), "v");
    JsonValue moved = JsonObject{{"old", JsonValue()}};
    moved = std::move(copy);
    EXPECT_EQ(stringOf(memberOf(moved, "k")), "v");
    EXPECT_EQ(moved.object()->members().size(), 1U);
}

}  // namespace
}  // namespace corvane
