#include "commands/exec/vsock_url.h"

#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace corvane {
namespace {

using Limits = std::numeric_limits<std::int32_t>;

VsockTarget targetOf(const std::string& url) {
    const auto target = parseVsockUrl(url);
    EXPECT_TRUE(target) << url;
    return target.value_or(VsockTarget{-12345, -12345});
}

TEST(VsockUrl, HostIsTheContextIdAndPortThePort) {
    const VsockTarget target = targetOf("vsock://2:5000");
    EXPECT_EQ(target.contextId, 2);
    EXPECT_EQ(target.port, 5000);
}

TEST(VsockUrl, ContextIdIsTheNumberThatTheHostBeginsWith) {
    const std::vector<std::pair<std::string, std::int32_t>> hosts = {
        {"abc", 0},
        {"-1", -1},
        {"+3", 3},
        {"+-3", 0},
        {"-", 0},
        {"12abc", 12},
        {"7.8.9.10", 7},
        {"007", 7},
        {"2147483647", Limits::max()},
        {"2147483648", Limits::max()},
        {"99999999999", Limits::max()},
        {"99999999999999999999999999", Limits::max()},
        {"-2147483648", Limits::min()},
        {"-99999999999999999999999999", Limits::min()},
        {"[::1]", 0},
        {"%32", 2},
        {"%20%092", 2},
        {"%0a%0b%0c%0d2", 2},
        {"2%003", 2},
        {"%C3%A9", 0},
    };
    for (const auto& [host, contextId] : hosts) {
        const VsockTarget target = targetOf("vsock://" + host + ":5000");
        EXPECT_EQ(target.contextId, contextId) << host;
        EXPECT_EQ(target.port, 5000) << host;
    }
}

TEST(VsockUrl, PortsAreThirtyTwoBitsWideAndWrap) {
    const std::vector<std::pair<std::string, std::int32_t>> ports = {
        {"0", 0},
        {"65535", 65535},
        {"65536", 65536},
        {"70000", 70000},
        {"00080", 80},
        {"2147483647", Limits::max()},
        {"2147483648", Limits::min()},
        {"4294967295", -1},
        {"4294967296", 0},
        {"4294967301", 5},
        {"18446744073709551617", 1},
    };
    for (const auto& [text, port] : ports) {
        EXPECT_EQ(targetOf("vsock://2:" + text).port, port) << text;
    }
}

TEST(VsockUrl, UserInformationAndAllBehindThePortAreIgnored) {
    for (const char* url :
         {"vsock://u@2:5000", "vsock://u:p@2:5000", "vsock://@2:5000", "vsock://2:5000/",
          "vsock://2:5000/a/b", "vsock://2:5000?a=b", "vsock://2:5000#c", "vsock://2:5000/a?b#c"}) {
        const VsockTarget target = targetOf(url);
        EXPECT_EQ(target.contextId, 2) << url;
        EXPECT_EQ(target.port, 5000) << url;
    }
}

TEST(VsockUrl, AnythingElseIsNotATarget) {
    for (const char* url : {"",
                            "vsock",
                            "2:5000",
                            "//2:5000",
                            "tcp://2:5000",
                            "VSOCK://2:1",
                            "Vsock://2:1",
                            "vsocks://2:1",
                            "vsoc://2:1",
                            "vsock:2:5000",
                            "vsock:/2:5000",
                            "vsock://",
                            "vsock:///",
                            "vsock://2",
                            "vsock://2/",
                            "vsock://2:",
                            "vsock://2:/5000",
                            "vsock://:5000",
                            "vsock://u@:5000",
                            "vsock://2:-1",
                            "vsock://2:+1",
                            "vsock://2:5000x",
                            "vsock://2:0x10",
                            "vsock://2:5000x/y",
                            "vsock://2:50:00",
                            "vsock:// 2:5000",
                            " vsock://2:5000",
                            "vsock://2:5000 ",
                            "vsock://2:5000\n",
                            "vsock://2:5000/ ",
                            "vsock://%2:5000",
                            "vsock://%zz:5000",
                            "vsock://[2]:5000",
                            "vsock://\xC3\xA9:5000"}) {
        EXPECT_FALSE(parseVsockUrl(url)) << url;
    }
    EXPECT_FALSE(parseVsockUrl(std::string_view("vsock://2:5000\0", 15)));
}

TEST(VsockUrl, LongUrlIsReadToItsEnd) {
    const std::string path(std::size_t{1} << 20U, 'a');
    EXPECT_EQ(targetOf("vsock://2:5000/" + path).port, 5000);
    EXPECT_FALSE(parseVsockUrl("vsock://2:5000/" + path + " "));
    EXPECT_EQ(targetOf("vsock://" + std::string(1 << 20, '0') + "3:5000").contextId, 3);
}

}  // namespace
}  // namespace corvane
