#include "platform/linux/boot_arguments.h"

#include <gtest/gtest.h>

namespace corvane {
namespace {

std::optional<std::string> port(std::string_view commandLine) {
    return bootArgumentText(commandLine, "port");
}

TEST(BootArguments, AWordOfTheNameGivesItsValue) {
    EXPECT_EQ(port("root=/dev/vda1 port=1024 quiet\n"), "1024");
}

TEST(BootArguments, AnAbsentNameGivesNothing) {
    EXPECT_EQ(port("root=/dev/vda1 quiet\n"), std::nullopt);
    EXPECT_EQ(port(""), std::nullopt);
    EXPECT_EQ(port(" \t\n"), std::nullopt);
}

TEST(BootArguments, OnlyTheWholeNameCounts) {
    EXPECT_EQ(port("xport=1 portx=2 x.port=3 PORT=4"), std::nullopt);
}

TEST(BootArguments, ANameWithoutAValueGivesNothing) {
    EXPECT_EQ(port("port"), std::nullopt);
    EXPECT_EQ(port("port= x"), "");
}

TEST(BootArguments, TheLastOfSeveralCounts) {
    EXPECT_EQ(port("port=1 port=2 port=3"), "3");
}

TEST(BootArguments, WordsAfterALoneDoubleDashBelongToInit) {
    EXPECT_EQ(port("port=1 -- port=2"), "1");
    EXPECT_EQ(port("-- port=2"), std::nullopt);
    EXPECT_EQ(port("--x --=y port=2"), "2");
}

TEST(BootArguments, QuotesKeepBlanksTogetherAndAreNotPartOfTheValue) {
    EXPECT_EQ(port("a=\"x port=1\" port=\"2 3\""), "2 3");
    EXPECT_EQ(port("a=\"x port=1\""), std::nullopt);
}

TEST(BootArguments, QuotesAroundTheWholeWordAreNotPartOfIt) {
    EXPECT_EQ(port("\"port=1 2\" x"), "1 2");
}

TEST(BootArguments, AnUnclosedQuoteReachesToTheEnd) {
    EXPECT_EQ(port("port=\"1 2"), "1 2");
    EXPECT_EQ(port("port=\""), "");
    EXPECT_EQ(port("\""), std::nullopt);
}

TEST(BootArguments, QuotesInsideAWordStay) {
    EXPECT_EQ(port("port=1\"2\"3"), "1\"2\"3");
}

/// The byte that is a no-break space in Latin-1, and part of some letter in UTF-8.
TEST(BootArguments, NoBreakSpaceIsABlank) {
    EXPECT_EQ(port("x\xA0port=1\xA0quiet"), "1");
    EXPECT_EQ(port("port=\"1\xA0 2\""), "1\xA0 2");
}

TEST(BootArguments, OnlyTheFirstEqualsSignDivides) {
    EXPECT_EQ(port("port=a=b"), "a=b");
}

TEST(Unsigned, DecimalAndHexadecimalAreRead) {
    EXPECT_EQ(parseUnsigned("1024"), 1024U);
    EXPECT_EQ(parseUnsigned("0x400"), 1024U);
    EXPECT_EQ(parseUnsigned("0XfF"), 255U);
    EXPECT_EQ(parseUnsigned("010"), 10U);
    EXPECT_EQ(parseUnsigned("0"), 0U);
}

TEST(Unsigned, TheLargestNumberFitsAndTheNextDoesNot) {
    EXPECT_EQ(parseUnsigned("18446744073709551615"), 18446744073709551615U);
    EXPECT_EQ(parseUnsigned("18446744073709551616"), std::nullopt);
    EXPECT_EQ(parseUnsigned("0xffffffffffffffff"), 18446744073709551615U);
    EXPECT_EQ(parseUnsigned("0x10000000000000000"), std::nullopt);
}

TEST(Unsigned, AnythingButAWholeNumberIsNone) {
    for (const char* text : {"", "0x", "-1", "+1", " 1", "1 ", "1024k", "0x4g", "0x-1", "ten"}) {
        EXPECT_EQ(parseUnsigned(text), std::nullopt) << '"' << text << '"';
    }
}

}  // namespace
}  // namespace corvane
