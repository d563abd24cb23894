#include "commands/system/shutdown.h"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/power_control.h"
#include "tests/unit/commands/system/system_fixture.h"

namespace corvane {
namespace {

using Actions = std::vector<PowerAction>;

class Shutdown : public SystemCommandTest {
 protected:
    void expectAction(const std::string& arguments, PowerAction action) {
        const std::size_t before = platform_.powerControl.performed().size();
        EXPECT_EQ(answerTo(handleGuestShutdown, arguments), success) << arguments;
        const Actions performed = platform_.powerControl.performed();
        ASSERT_EQ(performed.size(), before + 1) << arguments;
        EXPECT_EQ(performed.back(), action) << arguments;
    }
};

TEST_F(Shutdown, ActionsHaveTheFlagsOfThePowerControlCall) {
    EXPECT_EQ(static_cast<int>(PowerAction::restart), 0);
    EXPECT_EQ(static_cast<int>(PowerAction::powerOff), 8);
}

TEST_F(Shutdown, PowersOffWithoutArgumentsAndWithoutAMode) {
    expectAction("null", PowerAction::powerOff);
    expectAction("{}", PowerAction::powerOff);
    expectAction(R"({"Mode":"reboot","other":null})", PowerAction::powerOff);
}

TEST_F(Shutdown, HaltAndPowerdownAreTheSame) {
    expectAction(R"({"mode":"halt"})", PowerAction::powerOff);
    expectAction(R"({"mode":"powerdown"})", PowerAction::powerOff);
}

TEST_F(Shutdown, RebootRestarts) {
    expectAction(R"({"mode":"reboot"})", PowerAction::restart);
    expectAction(R"({"mode":"halt","mode":"reboot"})", PowerAction::restart);
}

TEST_F(Shutdown, OtherModesAreRefusedQuietlyAndNothingIsDone) {
    for (const char* mode :
         {"Reboot", "REBOOT", "Halt", "Powerdown", "powerDown", "power-down", "poweroff", "",
          " halt", "halt ", "halt\\n", "halt\\u0000", "hal", "reboot1", "0", "8", "null"}) {
        const std::string arguments = std::string(R"({"mode":")") + mode + "\"}";
        EXPECT_EQ(answerTo(handleGuestShutdown, arguments), error("unsupported mode")) << mode;
    }
    EXPECT_TRUE(platform_.powerControl.performed().empty());
}

TEST_F(Shutdown, ModeThatIsThereMustBeAString) {
    for (const char* mode : {"1", "0", "8", "-1", "0.5", "true", "false", "null", "[]",
                             R"(["halt"])", "{}", R"({"mode":"halt"})"}) {
        EXPECT_EQ(answerTo(handleGuestShutdown, std::string(R"({"mode":)") + mode + "}",
                           "handleGuestShutdown: mode is not a string\n"),
                  error("mode is not a string"))
            << mode;
    }
    EXPECT_TRUE(platform_.powerControl.performed().empty());
}

TEST_F(Shutdown, RefusalByTheGuestIsToldQuietly) {
    platform_.powerControl.accepts = false;
    for (const char* arguments : {"null", "{}", R"({"mode":"halt"})", R"({"mode":"reboot"})"}) {
        EXPECT_EQ(answerTo(handleGuestShutdown, arguments), error("failed to shutdown"));
    }
    EXPECT_EQ(platform_.powerControl.performed(),
              (Actions{PowerAction::powerOff, PowerAction::powerOff, PowerAction::powerOff,
                       PowerAction::restart}));
}

TEST_F(Shutdown, ModeIsCheckedBeforeTheGuestIsAsked) {
    platform_.powerControl.accepts = false;
    EXPECT_EQ(answerTo(handleGuestShutdown, R"({"mode":"Reboot"})"), error("unsupported mode"));
    EXPECT_EQ(answerTo(handleGuestShutdown, R"({"mode":1})",
                       "handleGuestShutdown: mode is not a string\n"),
              error("mode is not a string"));
    EXPECT_TRUE(platform_.powerControl.performed().empty());
}

TEST_F(Shutdown, LinesOfAHostAreAnswered) {
    EXPECT_EQ(answerToLine(R"({"execute":"guest-shutdown"})"), R"({"return":{}})");
    EXPECT_EQ(answerToLine(R"({"execute":"guest-shutdown","arguments":{"mode":"reboot"}})"),
              R"({"return":{}})");
    EXPECT_EQ(answerToLine(R"({"execute":"guest-shutdown","arguments":{"mode":"Reboot"}})"),
              R"({"error":{"class":"GenericError","desc":"unsupported mode"}})");
    EXPECT_EQ(answerToLine(R"({"execute":"guest-shutdown","arguments":{"mode":1}})",
                           "handleGuestShutdown: mode is not a string\n"),
              R"({"error":{"class":"GenericError","desc":"mode is not a string"}})");
    EXPECT_EQ(answerToLine(R"({"execute":"guest-shutdown","arguments":null})"),
              R"({"error":{"class":"GenericError","desc":"arguments is not a dictionary"}})");
    EXPECT_EQ(platform_.powerControl.performed(),
              (Actions{PowerAction::powerOff, PowerAction::restart}));
}

}  // namespace
}  // namespace corvane
