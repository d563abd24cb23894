#include "core/json_reader.h"

#include <pthread.h>

#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "core/json_writer.h"
#include "tests/unit/core/json_helper.h"

namespace corvane {
namespace {

using namespace std::string_literals;

bool refuses(std::string_view text) {
    const bool whole = std::holds_alternative<JsonError>(readWhole(text));
    const bool bytewise = std::holds_alternative<JsonError>(readInPieces(text, 1));
    EXPECT_EQ(whole, bytewise) << text.substr(0, 200);
    return whole;
}

bool reads(std::string_view text) {
    return !refuses(text);
}

std::string errorOf(std::string_view text) {
    const JsonOutcome outcome = readWhole(text);
    const auto* error = std::get_if<JsonError>(&outcome);
    return error != nullptr ? error->description : "no error";
}

std::string stringIn(std::string_view text) {
    const JsonValue value = valueOf(text);
    return arrayOf(value).size() == 1 ? stringOf(arrayOf(value).front()) : "no single string";
}

std::string repeated(std::string_view text, std::size_t count) {
    std::string all;
    all.reserve(text.size() * count);
    for (; count > 0; --count) {
        all += text;
    }
    return all;
}

TEST(JsonReader, ReadsEachKindOfValue) {
    const JsonValue value = valueOf(
        R"({"text":"x","number":-5,"yes":true,"no":false,"nothing":null,"list":[1,[]],"map":{}})");
    EXPECT_EQ(stringOf(memberOf(value, "text")), "x");
    EXPECT_EQ(numberOf(memberOf(value, "number")).asSigned64(), -5);
    EXPECT_TRUE(numberOf(memberOf(value, "yes")).isBoolean());
    EXPECT_EQ(numberOf(memberOf(value, "yes")).asUnsigned64(), 1U);
    EXPECT_TRUE(numberOf(memberOf(value, "no")).isBoolean());
    EXPECT_EQ(numberOf(memberOf(value, "no")).asUnsigned64(), 0U);
    EXPECT_TRUE(memberOf(value, "nothing").isNull());
    EXPECT_EQ(arrayOf(memberOf(value, "list")).size(), 2U);
    EXPECT_TRUE(arrayOf(arrayOf(memberOf(value, "list")).back()).empty());
    EXPECT_TRUE(objectOf(memberOf(value, "map")).members().empty());
}

TEST(JsonReader, KeepsMembersInOrderAndLetsTheLastOfANameCount) {
    const JsonValue value = valueOf(R"({"a":1,"b":2,"a":3,"":4})");
    ASSERT_EQ(objectOf(value).members().size(), 4U);
    EXPECT_EQ(objectOf(value).members()[1].key, "b");
    EXPECT_EQ(numberOf(memberOf(value, "a")).asUnsigned64(), 3U);
    EXPECT_EQ(numberOf(memberOf(value, "")).asUnsigned64(), 4U);
}

TEST(JsonReader, TakesWhiteSpaceAroundAllTokens) {
    EXPECT_TRUE(reads(" \t\r\n{ \"a\" : [ 1 , 2 ] , \"b\" : { } } \t\r\n"));
    EXPECT_TRUE(reads("[]\r"));
    EXPECT_TRUE(reads("{}" + std::string(10000, ' ')));
    EXPECT_TRUE(reads(std::string(10000, ' ') + "{}"));
}

TEST(JsonReader, RefusesAnEmptyOrBlankText) {
    EXPECT_TRUE(refuses(""));
    EXPECT_TRUE(refuses(" "));
    EXPECT_TRUE(refuses("\r"));
    EXPECT_TRUE(refuses(std::string(10000, ' ')));
}

TEST(JsonReader, RefusesOtherValuesAtTheTop) {
    for (const char* text : {"\"text\"", "\"\"", "\"\\n\"", "5", "-5", "0", "2.5", "1e5", "true",
                             "false", "null", " null ", "18446744073709551615"}) {
        EXPECT_TRUE(refuses(text)) << text;
    }
    EXPECT_TRUE(refuses('"' + std::string(100000, 'x') + '"'));
    EXPECT_TRUE(refuses(std::string(100000, '7')));
}

TEST(JsonReader, RefusesTextBehindTheValue) {
    for (const char* text : {"{}x", "{}{}", "[] []", "[1]]", "{}}", "{}\"", "{} ,", "[]0"}) {
        EXPECT_TRUE(refuses(text)) << text;
    }
    EXPECT_TRUE(refuses("{}" + std::string(10000, ' ') + "x"));
    EXPECT_TRUE(refuses("{}\0"s));
    EXPECT_EQ(errorOf("{} x"), "text after the value at byte 3");
}

TEST(JsonReader, RefusesTextBehindTheValueInALaterSlice) {
    EXPECT_TRUE(std::holds_alternative<JsonError>(readInTwo("{}{}", 2)));
    EXPECT_TRUE(std::holds_alternative<JsonError>(readInTwo("{} []", 3)));
    EXPECT_TRUE(std::holds_alternative<JsonError>(readInTwo("[]  x", 4)));
    EXPECT_TRUE(std::holds_alternative<JsonValue>(readInTwo("[]  \r", 4)));
}

TEST(JsonReader, RefusesUnfinishedText) {
    const std::string_view text = R"({"a":[1.5e3,"x\u00e9\n",true,false,null,-7,{}]})";
    EXPECT_TRUE(reads(text));
    for (std::size_t size = 0; size < text.size(); ++size) {
        EXPECT_TRUE(refuses(text.substr(0, size))) << size;
    }
}

TEST(JsonReader, RefusesTrailingAndMissingCommas) {
    for (const char* text : {"[1,]", "[,1]", "[1,,2]", "[1 2]", "[,]", R"({"a":1,})", R"({,"a":1})",
                             R"({"a":1 "b":2})", R"({"a" 1})", R"({"a"})", R"({"a":})", "{1:2}",
                             "{a:1}", "{'a':1}", "['a']", "[1}", R"({"a":1])"}) {
        EXPECT_TRUE(refuses(text)) << text;
    }
}

TEST(JsonReader, RefusesComments) {
    for (const char* text : {"[1]//x", "/**/[]", "[/**/]", "[1,/*x*/2]", "{/**/}", "[]#"}) {
        EXPECT_TRUE(refuses(text)) << text;
    }
}

TEST(JsonReader, RefusesWhatOnlyLooksLikeANumberOrWord) {
    for (const char* text :
         {"[01]",    "[-01]",      "[00]",    "[+1]",        "[.5]",   "[1.]",          "[1.e1]",
          "[1e]",    "[1e+]",      "[-]",     "[--1]",       "[0x1]",  "[1_000]",       "[NaN]",
          "[nan]",   "[Infinity]", "[inf]",   "[-Infinity]", "[True]", "[nul]",         "[nulL]",
          "[tru e]", "[truee]",    "[1.2.3]", "[1e1.5]",     "[1-]",   "[\xEF\xBC\x91]"}) {
        EXPECT_TRUE(refuses(text)) << text;
    }
}

TEST(JsonReader, RefusesAByteOrderMark) {
    EXPECT_TRUE(refuses("\xEF\xBB\xBF{}"));
}

TEST(JsonReader, RefusesNulAndOtherControlCharacters) {
    EXPECT_TRUE(refuses("\0{}"s));
    EXPECT_TRUE(refuses("{\0}"s));
    EXPECT_TRUE(refuses("[\f]"));
    EXPECT_TRUE(refuses("[\v]"));
    EXPECT_TRUE(refuses("[\xC2\xA0]"));
    for (int character = 0; character < 0x20; ++character) {
        EXPECT_TRUE(refuses("[\"a"s + static_cast<char>(character) + "b\"]")) << character;
        EXPECT_TRUE(refuses("[\"\\n"s + static_cast<char>(character) + "\"]")) << character;
    }
    EXPECT_EQ(stringIn("[\"\x7F\"]"), "\x7F");
}

TEST(JsonReader, RefusesBytesThatAreNotUtf8) {
    const std::vector<std::string> bad = {
        "\x80",
        "\xBF",
        "\xC0\x80",
        "\xC1\xBF",
        "\xC3",
        "\xC3(",
        "\xE0\x80\x80",
        "\xE0\x9F\xBF",
        "\xE2\x82",
        "\xE2\x28\xA1",
        "\xED\xA0\x80",
        "\xED\xBF\xBF",
        "\xF0\x80\x80\x80",
        "\xF0\x8F\xBF\xBF",
        "\xF0\x9F\x98",
        "\xF4\x90\x80\x80",
        "\xF5\x80\x80\x80",
        "\xF8\x88\x80\x80\x80",
        "\xFE",
        "\xF0\x28\x8C\xBC",
    };
    for (const std::string& bytes : bad) {
        for (const char* before : {"", "abcdefghijklmnopqrstuvwxyz", "\\n", "\xC3\xA9"}) {
            EXPECT_TRUE(refuses("[\"" + std::string(before) + bytes + "\"]")) << bytes;
            EXPECT_TRUE(refuses("[\"" + std::string(before) + bytes + "abcdefghijklmnop\"]"));
            EXPECT_TRUE(refuses("{\"" + std::string(before) + bytes + "\":1}")) << bytes;
        }
    }
}

TEST(JsonReader, TakesAllOfUtf8AsItIs) {
    const std::string text =
        "\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF\xF0\x90\x80\x80"
        "\xF4\x8F\xBF\xBF";
    EXPECT_EQ(stringIn("[\"" + text + "\"]"), text);
    EXPECT_EQ(stringIn("[\"\\t" + text + "\"]"), "\t" + text);
    EXPECT_EQ(objectOf(valueOf("{\"" + text + "\":1}")).members().front().key, text);
}

TEST(JsonReader, DecodesEscapes) {
    EXPECT_EQ(stringIn(R"(["\"\\\/\b\f\n\r\t"])"), "\"\\/\b\f\n\r\t");
    EXPECT_EQ(stringIn(R"(["\u0041\u00e9\u20AC\uFFFF"])"), "A\xC3\xA9\xE2\x82\xAC\xEF\xBF\xBF");
    EXPECT_EQ(stringIn(R"(["\ud83d\ude00"])"), "\xF0\x9F\x98\x80");
    EXPECT_EQ(stringIn(R"(["a\u0000b"])"), "a\0b"s);
    EXPECT_EQ(objectOf(valueOf(R"({"exe\u0063ute":1})")).members().front().key, "execute");
}

TEST(JsonReader, RefusesLoneSurrogatesAndUnknownEscapes) {
    for (const char* text :
         {R"(["\ud800"])", R"(["\udc00"])", R"(["\ud800x"])", R"(["\ud800\n"])",
          R"(["\ud800\ud800"])", R"(["\ud800\u0041"])", R"(["\udc00\ud800"])", R"(["\u12"])",
          R"(["\u12G4"])", R"(["\u"])", R"(["\x41"])", R"(["\'"])", R"(["\U00000041"])",
          R"(["\a"])", R"(["\)", R"(["\u-123"])", R"(["\u 123"])"}) {
        EXPECT_TRUE(refuses(text)) << text;
    }
}

TEST(JsonReader, ReadsNumbersExactlyFromTheirText) {
    const JsonValue value = valueOf(
        "[18446744073709551621,-1,1e400,1e30,2.9e0,-2.9,1e-400,123456e-3,0.00001e5,"
        "18446744073709551615,-9223372036854775808,-9223372036854775809,-0,9007199254740993.0]");
    std::vector<std::uint64_t> bits;
    for (const JsonValue& element : arrayOf(value)) {
        bits.push_back(numberOf(element).asUnsigned64());
    }
    const std::vector<std::uint64_t> expected = {5,
                                                 UINT64_MAX,
                                                 0,
                                                 5076944270305263616U,
                                                 2,
                                                 UINT64_MAX - 1,
                                                 0,
                                                 123,
                                                 1,
                                                 UINT64_MAX,
                                                 9223372036854775808U,
                                                 INT64_MAX,
                                                 0,
                                                 9007199254740993U};
    EXPECT_EQ(bits, expected);
}

TEST(JsonReader, ReadsNumbersOfAnyLength) {
    const std::string zeros(100000, '0');
    const JsonValue value =
        valueOf("[1" + zeros + "e-" + std::to_string(zeros.size()) + ",0." + zeros + "25e" +
                std::to_string(zeros.size() + 2) + ",5e" + zeros + "1,7]");
    ASSERT_EQ(arrayOf(value).size(), 4U);
    EXPECT_EQ(numberOf(arrayOf(value)[0]).asUnsigned64(), 1U);
    EXPECT_EQ(numberOf(arrayOf(value)[1]).asUnsigned64(), 25U);
    EXPECT_EQ(numberOf(arrayOf(value)[2]).asUnsigned64(), 50U);
    EXPECT_EQ(numberOf(arrayOf(value)[3]).asUnsigned64(), 7U);
}

TEST(JsonReader, ReadsExponentsOf31BitsWithTheirValues) {
    const JsonValue value = valueOf("[1e2147483647,1e-2147483647,1e400,1e-400,0e2147483647,1e0]");
    std::vector<std::uint64_t> bits;
    for (const JsonValue& element : arrayOf(value)) {
        bits.push_back(numberOf(element).asUnsigned64());
    }
    // From 10^64 on a power of ten is a multiple of 2^64.
    EXPECT_EQ(bits, (std::vector<std::uint64_t>{0, 0, 0, 0, 0, 1}));
}

TEST(JsonReader, RefusesExponentsBeyond31Bits) {
    EXPECT_TRUE(refuses("[1e2147483648]"));
    EXPECT_TRUE(refuses("[1e-2147483648]"));
    EXPECT_TRUE(refuses("[1e99999999999]"));
    EXPECT_TRUE(refuses("[1e-99999999999]"));
    EXPECT_TRUE(refuses("[0e99999999999999999999]"));
    // Digits in front of the point count with the exponent once they no longer fit 64 bits.
    EXPECT_TRUE(refuses("[100000000000000000000000e2147483647]"));
}

TEST(JsonReader, ReadsLongStringsAndKeysThatSpanSlices) {
    const std::string plain(300'000, 'x');
    const std::string mixed = repeated("\xC3\xA9 and \\u20ac\\n", 30'000);
    const std::string decoded = repeated("\xC3\xA9 and \xE2\x82\xAC\n", 30'000);
    const std::string text =
        "{\"" + plain + "\":\"" + mixed + "\",\"b\":\"" + plain + "\",\"" + mixed + "\":\"y\"}";
    for (const std::size_t size : {1000U, 8192U, 100'000U}) {
        const JsonOutcome outcome = readInPieces(text, size);
        const auto* value = std::get_if<JsonValue>(&outcome);
        ASSERT_NE(value, nullptr);
        const auto& members = objectOf(*value).members();
        ASSERT_EQ(members.size(), 3U);
        EXPECT_EQ(members[0].key, plain);
        EXPECT_EQ(stringOf(members[0].value), decoded);
        EXPECT_EQ(stringOf(members[1].value), plain);
        EXPECT_EQ(members[2].key, decoded);
        EXPECT_EQ(stringOf(members[2].value), "y");
    }
}

TEST(JsonReader, KeepsNoMoreRoomThanAStringNeeds) {
    // Each of the strings is given room for all the rest of the line while it is read.
    const std::string text = "[" + repeated("\"" + std::string(100'000, 'x') + "\",", 50) + "1]";
    const JsonOutcome outcome = readInPieces(text, 8192);
    const auto* value = std::get_if<JsonValue>(&outcome);
    ASSERT_NE(value, nullptr);
    for (std::size_t i = 0; i < 50; ++i) {
        EXPECT_LE(stringOf(arrayOf(*value)[i]).capacity(), 200'000U);
    }
}

TEST(JsonReader, ReadsArraysAndObjectsAsDeepAsTheLimit) {
    const std::size_t limit = jsonDepthLimit;
    EXPECT_TRUE(reads(std::string(limit, '[') + std::string(limit, ']')));
    EXPECT_TRUE(refuses(std::string(limit + 1, '[') + std::string(limit + 1, ']')));
    EXPECT_TRUE(reads(repeated("{\"a\":", limit) + "1" + std::string(limit, '}')));
    EXPECT_TRUE(refuses(repeated("{\"a\":", limit + 1) + "1" + std::string(limit + 1, '}')));
    EXPECT_TRUE(reads(repeated("[{\"a\":", limit / 2) + "1" + repeated("}]", limit / 2)));
}

TEST(JsonReader, LetsSiblingsBeDeepOneAfterAnother) {
    const std::string deep =
        std::string(jsonDepthLimit - 1, '[') + std::string(jsonDepthLimit - 1, ']');
    EXPECT_TRUE(reads("[" + deep + "," + deep + "," + deep + "]"));
}

#if defined(__has_feature)
#define CORVANE_TEST_HAS_FEATURE(name) __has_feature(name)
#else
#define CORVANE_TEST_HAS_FEATURE(name) 0
#endif

/// How much stack the reader gets in the tests below: four times what it was seen to use for the
/// deepest values. Sanitizers and code that is not optimised make each call's share far larger.
#if !defined(__OPTIMIZE__) || defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || \
    CORVANE_TEST_HAS_FEATURE(address_sanitizer) || CORVANE_TEST_HAS_FEATURE(thread_sanitizer)
constexpr std::size_t smallStack = 4U << 20U;
#else
constexpr std::size_t smallStack = 256U << 10U;
#endif

void runOnSmallStack(void (*action)()) {
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, smallStack), 0);
    pthread_t thread;
    const auto entry = [](void* function) -> void* {
        (*static_cast<void (**)()>(function))();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attributes, entry, &action), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}

TEST(JsonReader, RefusesAMillionOpenBracketsOnASmallStack) {
    runOnSmallStack([] {
        for (const std::string_view opening : {"[", "{\"a\":", "[{\"a\":"}) {
            const std::string text = repeated(opening, 1'000'000);
            for (const std::size_t size : {text.size(), std::size_t{7}}) {
                EXPECT_TRUE(std::holds_alternative<JsonError>(readInPieces(text, size)));
            }
        }
    });
}

TEST(JsonReader, ReadsAndWritesTheDeepestValuesOnASmallStack) {
    runOnSmallStack([] {
        const std::string inner = R"("\u0001 and some text")";
        for (const std::size_t size : {1U, 3U, 100'000U}) {
            const std::string text = repeated("[{\"a\":", jsonDepthLimit / 2) + inner +
                                     repeated("}]", jsonDepthLimit / 2);
            const JsonOutcome outcome = readInPieces(text, size);
            ASSERT_TRUE(std::holds_alternative<JsonValue>(outcome));
            const JsonValue copy = std::get<JsonValue>(outcome);
            EXPECT_EQ(writeJson(copy), text);
        }
    });
}

TEST(JsonReader, NamesTheFaultAndItsPlace) {
    EXPECT_EQ(errorOf("[1,x]"), "syntax error at byte 3");
    EXPECT_EQ(errorOf("{\"a\":"), "incomplete JSON at byte 5");
    EXPECT_EQ(errorOf(std::string(600, '[')), "too deep at byte 512");
    EXPECT_EQ(errorOf(std::string(5000, ' ') + "[1,x]"), "syntax error at byte 5003");
    EXPECT_NE(errorOf("\"text\"").find("syntax error"), std::string::npos);
}

JsonValue randomValue(std::mt19937& random, int depth) {
    static const std::vector<std::string> texts = {"",
                                                   "x",
                                                   "\n\"\\/\t\x01\x1F",
                                                   "\xC3\xA9",
                                                   "\xF0\x9F\x98\x80 and more of it",
                                                   std::string(70, 'y'),
                                                   std::string("\0nul", 4)};
    switch (random() % (depth > 0 ? 7U : 5U)) {
        case 0:
            return {};
        case 1:
            return JsonNumber::fromBoolean(random() % 2 == 0);
        case 2:
            return JsonNumber::fromUnsigned(std::uint64_t{random()} << (random() % 33));
        case 3:
            return JsonNumber::fromSigned(-static_cast<std::int64_t>(random()) - 1);
        case 4:
            return texts[random() % texts.size()] + texts[random() % texts.size()];
        case 5: {
            JsonArray array;
            for (std::size_t count = random() % 5; array.size() < count;) {
                array.push_back(randomValue(random, depth - 1));
            }
            return array;
        }
        default: {
            JsonObject object;
            for (std::size_t count = random() % 5; object.members().size() < count;) {
                object.add(texts[random() % texts.size()], randomValue(random, depth - 1));
            }
            return object;
        }
    }
}

TEST(JsonReader, ReadsBackWhatTheWriterWrites) {
    std::mt19937 random(5);
    for (int round = 0; round < 3000; ++round) {
        const JsonValue value = JsonArray{randomValue(random, 5)};
        const std::string text = writeJson(value);
        const JsonOutcome outcome = readInPieces(text, 1 + random() % 50);
        ASSERT_TRUE(std::holds_alternative<JsonValue>(outcome)) << text;
        EXPECT_TRUE(sameValue(value, std::get<JsonValue>(outcome))) << text;
    }
}

}  // namespace
}  // namespace corvane
