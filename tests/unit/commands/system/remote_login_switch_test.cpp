#include "commands/system/remote_login_switch.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/unit/commands/system/system_fixture.h"

namespace corvane {
namespace {

class RemoteLoginSwitch : public SystemCommandTest {
 protected:
    void expectSwitch(const std::string& arguments, bool on) {
        FakeRemoteLogin& remoteLogin = platform_.remoteLogin;
        remoteLogin.switched.clear();
        remoteLogin.authorisations = 0;
        EXPECT_EQ(answerTo(handleGuestSetRemoteLogin, arguments), success) << arguments;
        EXPECT_EQ(remoteLogin.switched, std::vector<bool>{on}) << arguments;
        EXPECT_EQ(remoteLogin.authorisations, 1) << arguments;
    }

    void expectUntouched() const {
        EXPECT_TRUE(platform_.remoteLogin.switched.empty());
        EXPECT_EQ(platform_.remoteLogin.authorisations, 0);
    }
};

TEST_F(RemoteLoginSwitch, TrueAndOneSwitchOnFalseAndZeroSwitchOff) {
    expectSwitch(R"({"enabled":true})", true);
    expectSwitch(R"({"enabled":1})", true);
    expectSwitch(R"({"enabled":false})", false);
    expectSwitch(R"({"enabled":0})", false);
}

TEST_F(RemoteLoginSwitch, EveryNumberButZeroSwitchesOn) {
    for (const char* number : {"2", "-1", "256", "4294967296", "18446744073709551615",
                               "18446744073709551616", "1e400", "1.0"}) {
        expectSwitch(std::string(R"({"enabled":)") + number + "}", true);
    }
    for (const char* number : {"-0", "0.0", "0e9", "-0.0e-9"}) {
        expectSwitch(std::string(R"({"enabled":)") + number + "}", false);
    }
}

TEST_F(RemoteLoginSwitch, WithoutTheArgumentItIsSwitchedOff) {
    expectSwitch("{}", false);
    expectSwitch(R"({"Enabled":true,"other":1})", false);
}

TEST_F(RemoteLoginSwitch, WithoutArgumentsItIsRefusedQuietly) {
    EXPECT_EQ(answerTo(handleGuestSetRemoteLogin, "null"), error("missing arguments"));
    expectUntouched();
}

TEST_F(RemoteLoginSwitch, OtherTypesAreRefusedQuietly) {
    for (const char* enabled : {R"("yes")", R"("true")", R"("1")", R"("")", "null", "[]", "[true]",
                                "{}", R"({"enabled":true})"}) {
        EXPECT_EQ(
            answerTo(handleGuestSetRemoteLogin, std::string(R"({"enabled":)") + enabled + "}"),
            error("enabled is not a number"))
            << enabled;
    }
    expectUntouched();
}

TEST_F(RemoteLoginSwitch, RefusedAuthorisationIsToldQuietlyAndLeavesTheSwitch) {
    platform_.remoteLogin.authorises = false;
    for (const char* arguments : {R"({"enabled":true})", R"({"enabled":0})", "{}"}) {
        EXPECT_EQ(answerTo(handleGuestSetRemoteLogin, arguments),
                  error("failed to set remote login"));
    }
    EXPECT_TRUE(platform_.remoteLogin.switched.empty());
    EXPECT_EQ(platform_.remoteLogin.authorisations, 3);
}

TEST_F(RemoteLoginSwitch, ArgumentsAreCheckedBeforeTheAuthorisation) {
    platform_.remoteLogin.authorises = false;
    EXPECT_EQ(answerTo(handleGuestSetRemoteLogin, "null"), error("missing arguments"));
    EXPECT_EQ(answerTo(handleGuestSetRemoteLogin, R"({"enabled":null})"),
              error("enabled is not a number"));
    expectUntouched();
}

TEST_F(RemoteLoginSwitch, IsAnsweredWhetherItIsListedOrNot) {
    for (const bool available : {false, true}) {
        platform_.remoteLogin.available = available;
        expectSwitch(R"({"enabled":true})", true);
    }
}

TEST_F(RemoteLoginSwitch, LinesOfAHostAreAnswered) {
    EXPECT_EQ(
        answerToLine(R"({"execute":"mirel-guest-set-remote-login","arguments":{"enabled":true}})"),
        R"({"return":{}})");
    EXPECT_EQ(answerToLine(R"({"execute":"mirel-guest-set-remote-login","arguments":{}})"),
              R"({"return":{}})");
    EXPECT_EQ(platform_.remoteLogin.switched, (std::vector<bool>{true, false}));
    EXPECT_EQ(answerToLine(R"({"execute":"mirel-guest-set-remote-login"})"),
              R"({"error":{"class":"GenericError","desc":"missing arguments"}})");
    EXPECT_EQ(
        answerToLine(R"({"execute":"mirel-guest-set-remote-login","arguments":{"enabled":"yes"}})"),
        R"({"error":{"class":"GenericError","desc":"enabled is not a number"}})");
    platform_.remoteLogin.authorises = false;
    EXPECT_EQ(
        answerToLine(R"({"execute":"mirel-guest-set-remote-login","arguments":{"enabled":true}})"),
        R"({"error":{"class":"GenericError","desc":"failed to set remote login"}})");
}

}  // namespace
}  // namespace corvane
