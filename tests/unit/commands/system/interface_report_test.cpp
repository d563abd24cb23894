#include "commands/system/interface_report.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/network_interfaces.h"
#include "tests/unit/commands/system/system_fixture.h"

namespace corvane {
namespace {

using Family = InterfaceAddress::Family;
using Bytes = std::array<std::uint8_t, 16>;
using Entries = std::vector<InterfaceAddress>;

Bytes bytesOf(int family, const std::string& text) {
    Bytes bytes{};
    EXPECT_EQ(::inet_pton(family, text.c_str(), bytes.data()), 1) << text;
    return bytes;
}

InterfaceAddress link(const std::string& name, const Bytes& address = {}) {
    return {name, true, Family::link, address, {}};
}

InterfaceAddress ipv4(const std::string& name, const std::string& address,
                      const std::string& mask = "255.255.255.0") {
    return {name, true, Family::ipv4, bytesOf(AF_INET, address), bytesOf(AF_INET, mask)};
}

InterfaceAddress ipv6(const std::string& name, const std::string& address,
                      const std::string& mask = "ffff:ffff:ffff:ffff::") {
    return {name, true, Family::ipv6, bytesOf(AF_INET6, address), bytesOf(AF_INET6, mask)};
}

InterfaceAddress down(InterfaceAddress entry) {
    entry.isUp = false;
    return entry;
}

InterfaceAddress withoutMask(InterfaceAddress entry) {
    entry.mask.reset();
    return entry;
}

InterfaceAddress ofUnknownFamily(InterfaceAddress entry) {
    entry.family = Family::other;
    return entry;
}

/// A list with one interface of one address.
Entries oneInterface(const InterfaceAddress& address) {
    return {link("eth0"), address};
}

class InterfaceReport : public SystemCommandTest {
 protected:
    std::string reportOf(Entries entries) {
        platform_.networkInterfaces.entries = std::move(entries);
        return answerTo(handleGuestNetworkGetInterfaces, "null");
    }

    /// The report in short: "NAME ADDRESS/PREFIX ADDRESS/PREFIX; NAME ADDRESS/PREFIX".
    std::string inShort(Entries entries) {
        const JsonValue response = valueOf(reportOf(std::move(entries)));
        std::string text;
        for (const JsonValue& interface : arrayOf(memberOf(response, "return"))) {
            text += (text.empty() ? "" : "; ") + stringOf(memberOf(interface, "name"));
            for (const JsonValue& address : arrayOf(memberOf(interface, "ip-addresses"))) {
                text += " " + stringOf(memberOf(address, "ip-address")) + "/" +
                        std::to_string(numberOf(memberOf(address, "prefix")).asUnsigned64());
            }
        }
        return text;
    }

    std::string hardwareAddressOf(const Bytes& bytes) {
        const JsonValue response =
            valueOf(reportOf({link("eth0", bytes), ipv4("eth0", "1.2.3.4")}));
        return stringOf(memberOf(arrayOf(memberOf(response, "return")).at(0), "hardware-address"));
    }
};

TEST_F(InterfaceReport, HasNameHardwareAddressAndAddressesWithTheirPrefixes) {
    EXPECT_EQ(reportOf({link("lo"), ipv4("lo", "127.0.0.1", "255.0.0.0"),
                        ipv6("lo", "::1", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"),
                        link("eth0", {0x00, 0x1C, 0x42, 0x0A, 0x0B, 0x0C}),
                        ipv4("eth0", "10.211.55.5"), ipv6("eth0", "fe80::21c:42ff:fe0a:b0c")}),
              R"({"return":[)"
              R"({"name":"lo","hardware-address":"0:0:0:0:0:0","ip-addresses":[)"
              R"({"ip-address-type":"ipv4","ip-address":"127.0.0.1","prefix":8},)"
              R"({"ip-address-type":"ipv6","ip-address":"::1","prefix":128}]},)"
              R"({"name":"eth0","hardware-address":"0:1c:42:a:b:c","ip-addresses":[)"
              R"({"ip-address-type":"ipv4","ip-address":"10.211.55.5","prefix":24},)"
              R"({"ip-address-type":"ipv6","ip-address":"fe80::21c:42ff:fe0a:b0c","prefix":64}]})"
              R"(]})");
}

TEST_F(InterfaceReport, HardwareAddressIsInLowerCaseWithoutLeadingZeros) {
    EXPECT_EQ(hardwareAddressOf({0x00, 0x1C, 0x42, 0x0A, 0x0B, 0x0C}), "0:1c:42:a:b:c");
    EXPECT_EQ(hardwareAddressOf({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}), "ff:ff:ff:ff:ff:ff");
    EXPECT_EQ(hardwareAddressOf({}), "0:0:0:0:0:0");
    EXPECT_EQ(hardwareAddressOf({0x52, 0x54, 0x00, 0x12, 0x34, 0x50}), "52:54:0:12:34:50");
    EXPECT_EQ(hardwareAddressOf({1, 2, 3, 4, 5, 6, 7, 8, 9}), "1:2:3:4:5:6") << "six bytes alone";
}

TEST_F(InterfaceReport, AddressesStandInTheUsualText) {
    EXPECT_EQ(inShort({link("eth0"), ipv4("eth0", "255.255.255.255"), ipv4("eth0", "0.0.0.0"),
                       ipv6("eth0", "::"), ipv6("eth0", "::ffff:1.2.3.4"),
                       ipv6("eth0", "2001:DB8:0:0:1:0:0:1"),
                       ipv6("eth0", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff")}),
              "eth0 255.255.255.255/24 0.0.0.0/24 ::/64 ::ffff:1.2.3.4/64 2001:db8::1:0:0:1/64 "
              "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/64");
}

TEST_F(InterfaceReport, PrefixOfAnIpv4AddressIsTheLeadingRunOfItsMask) {
    const std::vector<std::pair<std::string, unsigned>> masks = {
        {"255.255.255.0", 24},   {"255.0.255.0", 8}, {"0.0.0.0", 0},   {"255.255.255.255", 32},
        {"255.255.255.254", 31}, {"128.0.0.0", 1},   {"0.255.0.0", 0}, {"255.255.240.1", 20}};
    for (const auto& [mask, prefix] : masks) {
        EXPECT_EQ(inShort(oneInterface(ipv4("eth0", "1.2.3.4", mask))),
                  "eth0 1.2.3.4/" + std::to_string(prefix));
    }
}

TEST_F(InterfaceReport, PrefixOfAnIpv6AddressIsThatOfItsMask) {
    const std::vector<std::pair<std::string, unsigned>> masks = {
        {"ffff:ffff:ffff:ffff::", 64},
        {"ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", 128},
        {"fffe::", 15},
        {"fe00::", 7},
        {"ffff:ffff:ffff:ffff:ffff:ffff:ffff:fffe", 127},
        {"::", 0},
        {"ff00:ff00::", 0},
        {"ff01::", 8},
        {"8000::", 1}};
    for (const auto& [mask, prefix] : masks) {
        EXPECT_EQ(inShort(oneInterface(ipv6("eth0", "fd00::1", mask))),
                  "eth0 fd00::1/" + std::to_string(prefix))
            << mask;
    }
}

TEST_F(InterfaceReport, AddressWithoutAMaskHasThePrefixZero) {
    EXPECT_EQ(inShort({link("eth0"), withoutMask(ipv4("eth0", "1.2.3.4")),
                       withoutMask(ipv6("eth0", "fd00::1"))}),
              "eth0 1.2.3.4/0 fd00::1/0");
}

TEST_F(InterfaceReport, InterfaceWithoutAnAddressIsAbsent) {
    EXPECT_EQ(inShort({link("eth0")}), "");
    EXPECT_EQ(inShort({link("eth0"), link("eth1"), ipv4("eth1", "1.2.3.4"), link("eth2")}),
              "eth1 1.2.3.4/24");
    EXPECT_EQ(inShort({link("eth0"), ofUnknownFamily(ipv4("eth0", "1.2.3.4"))}), "");
}

TEST_F(InterfaceReport, InterfaceThatIsDownIsAbsentWithItsAddresses) {
    EXPECT_EQ(inShort({down(link("eth0")), down(ipv4("eth0", "1.2.3.4")),
                       down(ipv6("eth0", "fd00::1")), link("eth1"), ipv4("eth1", "1.2.3.5")}),
              "eth1 1.2.3.5/24");
    EXPECT_EQ(inShort({link("eth1"), ipv4("eth1", "1.2.3.5"), down(link("eth0")),
                       down(ipv4("eth0", "1.2.3.4")), ipv4("eth1", "1.2.3.6")}),
              "eth1 1.2.3.5/24 1.2.3.6/24")
        << "its entries in between do not end another interface";
}

TEST_F(InterfaceReport, WithoutAnInterfaceItIsEmpty) {
    EXPECT_EQ(reportOf({}), R"({"return":[]})");
    EXPECT_EQ(reportOf({down(link("lo")), down(ipv4("lo", "127.0.0.1"))}), R"({"return":[]})");
}

TEST_F(InterfaceReport, AddressBeforeAnyLinkLevelEntryIsSkipped) {
    EXPECT_EQ(inShort({ipv4("eth0", "1.2.3.4"), ipv6("eth0", "fd00::1")}), "");
    EXPECT_EQ(inShort({ipv4("eth0", "1.2.3.4"), link("eth0"), ipv4("eth0", "1.2.3.5")}),
              "eth0 1.2.3.5/24");
    EXPECT_EQ(inShort({down(link("eth0")), ipv4("eth0", "1.2.3.4")}), "");
}

TEST_F(InterfaceReport, AddressesBelongToTheLinkLevelEntryBeforeThemWhateverTheirNames) {
    EXPECT_EQ(inShort({link("eth0"), link("eth1"), ipv4("eth0", "1.2.3.4"), ipv6("lo", "fd00::1")}),
              "eth1 1.2.3.4/24 fd00::1/64");
    EXPECT_EQ(inShort({link("eth0"), ipv4("eth0", "1.2.3.4"), down(link("eth1")),
                       ipv4("eth1", "1.2.3.5")}),
              "eth0 1.2.3.4/24 1.2.3.5/24");
}

TEST_F(InterfaceReport, InterfacesOfOneNameAreReportedEachForItself) {
    EXPECT_EQ(
        inShort({link("eth0"), ipv4("eth0", "1.2.3.4"), link("eth0"), ipv4("eth0", "1.2.3.5")}),
        "eth0 1.2.3.4/24; eth0 1.2.3.5/24");
}

TEST_F(InterfaceReport, OtherFamiliesAreSkippedAndEndNothing) {
    EXPECT_EQ(inShort({ofUnknownFamily(link("eth0")), link("eth0"),
                       ofUnknownFamily(ipv4("eth0", "1.2.3.4")), ipv4("eth0", "1.2.3.5"),
                       ofUnknownFamily(link("eth1")), ipv4("eth1", "1.2.3.6")}),
              "eth0 1.2.3.5/24 1.2.3.6/24");
}

TEST_F(InterfaceReport, KeepsTheOrderOfTheList) {
    EXPECT_EQ(inShort({link("z"), ipv6("z", "fd00::2"), ipv4("z", "1.2.3.9"), link("a"),
                       ipv4("a", "1.2.3.2"), ipv6("a", "fd00::1"), ipv4("a", "1.2.3.1"), link("m"),
                       ipv4("m", "1.2.3.3")}),
              "z fd00::2/64 1.2.3.9/24; a 1.2.3.2/24 fd00::1/64 1.2.3.1/24; m 1.2.3.3/24");
}

/// The walk with the two things that it remembers, in short form like above.
std::string walked(const Entries& entries) {
    struct Interface {
        std::string text;
    };
    std::shared_ptr<Interface> pending;
    std::shared_ptr<Interface> current;
    std::vector<std::shared_ptr<Interface>> result;
    for (const InterfaceAddress& entry : entries) {
        if (!entry.isUp) {
            continue;
        }
        if (entry.family == Family::link) {
            pending = std::make_shared<Interface>(Interface{entry.interfaceName});
            current = pending;
        } else if (entry.family != Family::other) {
            if (pending) {
                result.push_back(pending);
                pending.reset();
            }
            if (current) {
                const bool isIpv4 = entry.family == Family::ipv4;
                std::array<char, 46> text{};
                ::inet_ntop(isIpv4 ? AF_INET : AF_INET6, entry.address.data(), text.data(),
                            text.size());
                current->text += std::string(" ") + text.data() + (isIpv4 ? "/24" : "/64");
            }
        }
    }
    std::string text;
    for (const auto& interface : result) {
        text += (text.empty() ? "" : "; ") + interface->text;
    }
    return text;
}

TEST_F(InterfaceReport, AgreesWithTheWalkOverRandomLists) {
    std::minstd_rand random(3);
    for (int round = 0; round < 3000; ++round) {
        Entries entries;
        for (auto left = random() % 12; left > 0; --left) {
            const std::string name = "e" + std::to_string(random() % 3);
            const std::string number = std::to_string(random() % 200);
            const std::array<InterfaceAddress, 3> choice{link(name), ipv4(name, "10.0.0." + number),
                                                         ipv6(name, "fd00::" + number)};
            InterfaceAddress entry = choice.at(random() % 3);
            if (random() % 4 == 0) {
                entry = random() % 2 == 0 ? down(entry) : ofUnknownFamily(entry);
            }
            entries.push_back(std::move(entry));
        }
        EXPECT_EQ(inShort(entries), walked(entries));
    }
}

TEST_F(InterfaceReport, NameOfAnyBytesIsStillJson) {
    EXPECT_EQ(reportOf({link("e\"\\\xFF"), ipv4("e", "1.2.3.4")}),
              R"({"return":[{"name":"e\"\\)"
              "\xEF\xBF\xBD"
              R"(","hardware-address":"0:0:0:0:0:0","ip-addresses":[)"
              R"({"ip-address-type":"ipv4","ip-address":"1.2.3.4","prefix":24}]}]})");
}

TEST_F(InterfaceReport, ListThatCannotBeHadIsToldWithItsErrorQuietly) {
    platform_.networkInterfaces.entries = oneInterface(ipv4("eth0", "1.2.3.4"));
    for (const int number : {EMFILE, ENOBUFS, EPERM}) {
        platform_.networkInterfaces.error = number;
        EXPECT_EQ(answerTo(handleGuestNetworkGetInterfaces, "null"),
                  error("getifaddrs error " + std::to_string(number)));
    }
}

TEST_F(InterfaceReport, ArgumentsDoNotMatter) {
    platform_.networkInterfaces.entries = oneInterface(ipv4("eth0", "1.2.3.4"));
    const std::string report = answerTo(handleGuestNetworkGetInterfaces, "null");
    for (const char* arguments : {"{}", R"({"name":"eth1"})", R"({"x":null,"y":[1,{}]})"}) {
        EXPECT_EQ(answerTo(handleGuestNetworkGetInterfaces, arguments), report);
    }
}

TEST_F(InterfaceReport, IsMadeAnewEachTime) {
    EXPECT_EQ(inShort(oneInterface(ipv4("eth0", "1.2.3.4"))), "eth0 1.2.3.4/24");
    EXPECT_EQ(inShort({}), "");
}

TEST_F(InterfaceReport, LinesOfAHostAreAnswered) {
    const std::string request = R"({"execute":"guest-network-get-interfaces"})";
    EXPECT_EQ(answerToLine(request), R"({"return":[]})");
    platform_.networkInterfaces.entries = {link("eth0", {0x52, 0x54, 0, 0x12, 0x34, 0x56}),
                                           ipv4("eth0", "10.0.2.15")};
    const std::string answer =
        R"({"return":[{"name":"eth0","hardware-address":"52:54:0:12:34:56","ip-addresses":[)"
        R"({"ip-address-type":"ipv4","ip-address":"10.0.2.15","prefix":24}]}]})";
    EXPECT_EQ(answerToLine(request), answer);
    EXPECT_EQ(
        answerToLine(R"({"execute":"guest-network-get-interfaces","arguments":{"name":"lo"}})"),
        answer);
    EXPECT_EQ(answerToLine(R"({"execute":"guest-network-get-interfaces","arguments":[]})"),
              R"({"error":{"class":"GenericError","desc":"arguments is not a dictionary"}})");
    platform_.networkInterfaces.error = EMFILE;
    EXPECT_EQ(answerToLine(request),
              R"({"error":{"class":"GenericError","desc":"getifaddrs error 24"}})");
}

}  // namespace
}  // namespace corvane
