#pragma once

#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "commands/all_commands.h"
#include "core/command_table.h"
#include "core/dispatcher.h"
#include "core/json_writer.h"
#include "tests/fakes/fake_platform.h"
#include "tests/unit/core/json_helper.h"

namespace corvane {

/// Tests of the commands that ask the guest itself for something, on services that remember it.
class SystemCommandTest : public testing::Test {
 protected:
    void SetUp() override { useCommandTable(allCommands); }
    void TearDown() override { useCommandTable({}); }

    /// The handler's response, as JSON, to arguments, as JSON ("null" stands for none). What it
    /// writes to standard error must be `written`.
    static std::string answerTo(ArgumentsHandler handler, const std::string& arguments,
                                const std::string& written = "") {
        const JsonValue value = arguments == "null" ? JsonValue() : valueOf(arguments);
        testing::internal::CaptureStderr();
        std::string answer = writeJson(handler(value.object()));
        EXPECT_EQ(testing::internal::GetCapturedStderr(), written) << arguments;
        return answer;
    }

    /// The response to a line of a host, by way of the dispatcher.
    static std::string answerToLine(const std::string& line, const std::string& written = "") {
        testing::internal::CaptureStderr();
        std::string answer = writeJson(dispatchRequest(valueOf(line)));
        EXPECT_EQ(testing::internal::GetCapturedStderr(), written) << line;
        return answer;
    }

    static std::string error(const std::string& description) {
        return R"({"error":{"class":"GenericError","desc":")" + description + "\"}}";
    }

    static constexpr char success[] = R"({"return":{}})";

    FakePlatform platform_;
};

}  // namespace corvane
