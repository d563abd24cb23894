#include "commands/system/prefix_length.h"

#include <array>
#include <cstdint>
#include <random>
#include <string>

#include <gtest/gtest.h>

namespace corvane {
namespace {

using Ipv4Mask = std::array<std::uint8_t, 4>;
using Ipv6Mask = std::array<std::uint8_t, 16>;

unsigned prefixOf(const Ipv6Mask& mask) {
    return ipv6PrefixLength(mask);
}

/// Bit 0 is the most significant one of the first byte.
template <typename Mask>
bool bitOf(const Mask& mask, unsigned bit) {
    return (mask.at(bit / 8) >> (7 - bit % 8) & 1) != 0;
}

template <typename Mask>
Mask contiguous(unsigned length) {
    Mask mask{};
    for (unsigned bit = 0; bit < length; ++bit) {
        mask.at(bit / 8) = static_cast<std::uint8_t>(mask.at(bit / 8) | 0x80U >> bit % 8);
    }
    return mask;
}

unsigned slowIpv4(const Ipv4Mask& mask) {
    unsigned length = 0;
    while (length < 32 && bitOf(mask, length)) {
        ++length;
    }
    return length;
}

/// Step by step, as hosts know it, each bit for itself.
unsigned slowIpv6(const Ipv6Mask& mask) {
    unsigned byte = 0;
    while (byte < 16 && mask.at(byte) == 0xFF) {
        ++byte;
    }
    unsigned prefix = byte * 8;
    if (byte == 16) {
        return prefix;
    }
    bool clearBitFound = false;
    for (unsigned bit = 7; bit >= 1; --bit) {  // bit 0 is never examined
        const bool isSet = (mask.at(byte) & 1U << bit) != 0;
        if (clearBitFound && isSet) {
            return 0;
        }
        if (isSet) {
            ++prefix;
        } else {
            clearBitFound = true;
        }
    }
    for (unsigned next = byte + 1; next < 16; ++next) {
        if (mask.at(next) != 0) {
            return 0;
        }
    }
    return prefix;
}

TEST(Ipv4PrefixLength, IsTheNumberOfLeadingOnesForAllContiguousMasks) {
    for (unsigned length = 0; length <= 32; ++length) {
        EXPECT_EQ(ipv4PrefixLength(contiguous<Ipv4Mask>(length)), length);
    }
}

TEST(Ipv4PrefixLength, EndsAtTheFirstZeroWhateverComesAfterIt) {
    EXPECT_EQ(ipv4PrefixLength(Ipv4Mask{255, 0, 255, 0}), 8U);
    EXPECT_EQ(ipv4PrefixLength(Ipv4Mask{0, 255, 255, 255}), 0U);
    EXPECT_EQ(ipv4PrefixLength(Ipv4Mask{0x7F, 255, 255, 255}), 0U);
    EXPECT_EQ(ipv4PrefixLength(Ipv4Mask{255, 255, 0xFD, 255}), 22U);
    EXPECT_EQ(ipv4PrefixLength(Ipv4Mask{255, 255, 255, 1}), 24U);
    EXPECT_EQ(ipv4PrefixLength(Ipv4Mask{0xFE, 255, 255, 255}), 7U);
}

TEST(Ipv4PrefixLength, AgreesWithASlowCountOverRandomMasks) {
    std::minstd_rand random(1);
    for (int round = 0; round < 100000; ++round) {
        Ipv4Mask mask = contiguous<Ipv4Mask>(static_cast<unsigned>(random() % 33));
        mask.at(random() % 4) ^= static_cast<std::uint8_t>(random() >> 8U);
        EXPECT_EQ(ipv4PrefixLength(mask), slowIpv4(mask)) << testing::PrintToString(mask);
    }
}

TEST(Ipv6PrefixLength, IsTheNumberOfLeadingOnesForAllContiguousMasks) {
    for (unsigned length = 0; length <= 128; ++length) {
        EXPECT_EQ(ipv6PrefixLength(contiguous<Ipv6Mask>(length)), length);
    }
}

TEST(Ipv6PrefixLength, OfAMaskWithAOneAfterAZeroIsZero) {
    EXPECT_EQ(prefixOf({0xFF, 0, 0xFF, 0}), 0U);
    EXPECT_EQ(prefixOf({0xFF, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}), 0U);
    EXPECT_EQ(prefixOf({0xFF, 0xBF}), 0U);
    EXPECT_EQ(prefixOf({0xFF, 0xFA}), 0U);
    EXPECT_EQ(prefixOf({0xFF, 0x02}), 0U);
    EXPECT_EQ(prefixOf({0xFE, 0x80}), 0U);
    EXPECT_EQ(prefixOf({0, 0xFF}), 0U);
}

TEST(Ipv6PrefixLength, LastBitOfTheFirstByteThatIsNotFullDoesNotMatter) {
    EXPECT_EQ(prefixOf({0xFF, 0xFE}), 15U);
    EXPECT_EQ(prefixOf({0xFF, 0xFD}), 14U) << "11111101: six ones, a zero, and the last";
    EXPECT_EQ(prefixOf({0xFF, 0xFC}), 14U);
    EXPECT_EQ(prefixOf({0xFF, 0x81}), 9U);
    EXPECT_EQ(prefixOf({0xFF, 0x01}), 8U);
    EXPECT_EQ(prefixOf({0x01}), 0U);
    EXPECT_EQ(prefixOf({0xFF, 0x01, 0x80}), 0U) << "but the byte after it does";
    EXPECT_EQ(prefixOf({0xFF, 0xFF}), 16U) << "a full byte counts whole";
    EXPECT_EQ(prefixOf({0xFF, 0xFF, 0x01}), 16U);
}

TEST(Ipv6PrefixLength, AgreesWithSingleStepsForEveryPartialByteInEveryPlace) {
    for (unsigned place = 0; place < 16; ++place) {
        for (unsigned partial = 0; partial < 0xFF; ++partial) {
            Ipv6Mask mask = contiguous<Ipv6Mask>(place * 8);
            mask.at(place) = static_cast<std::uint8_t>(partial);
            EXPECT_EQ(ipv6PrefixLength(mask), slowIpv6(mask)) << testing::PrintToString(mask);
            for (unsigned after = place + 1; after < 16; ++after) {
                for (const std::uint8_t rest : Ipv4Mask{0x01, 0x40, 0x80, 0xFF}) {
                    Ipv6Mask spoilt = mask;
                    spoilt.at(after) = rest;
                    EXPECT_EQ(ipv6PrefixLength(spoilt), 0U) << testing::PrintToString(spoilt);
                    EXPECT_EQ(slowIpv6(spoilt), 0U);
                }
            }
        }
    }
}

TEST(Ipv6PrefixLength, AgreesWithSingleStepsOverRandomMasks) {
    std::minstd_rand random(2);
    for (int round = 0; round < 200000; ++round) {
        Ipv6Mask mask = contiguous<Ipv6Mask>(static_cast<unsigned>(random() % 129));
        for (auto changes = random() % 3; changes > 0; --changes) {
            mask.at(random() % 16) ^= static_cast<std::uint8_t>(1U << random() % 8);
        }
        EXPECT_EQ(ipv6PrefixLength(mask), slowIpv6(mask)) << testing::PrintToString(mask);
    }
}

}  // namespace
}  // namespace corvane
