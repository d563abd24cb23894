#pragma once

#include <string>
#include <string_view>
#include <utility>

#include <gtest/gtest.h>

#include "commands/exec/exec_request.h"
#include "core/json_writer.h"
#include "core/message.h"
#include "tests/unit/core/json_helper.h"

namespace corvane {

/// What came of reading the arguments of one "guest-exec".
struct ReadOutcome {
    std::string answer;  ///< the error response; empty when there is none
    std::string standardError;
    ExecRequest request;
};

inline ReadOutcome outcomeOf(const JsonObject* arguments) {
    ReadOutcome outcome;
    testing::internal::CaptureStderr();
    const auto error = readExecRequest(arguments, outcome.request);
    outcome.standardError = testing::internal::GetCapturedStderr();
    outcome.answer = error ? writeJson(*error) : "";
    return outcome;
}

inline ReadOutcome outcomeOf(std::string_view arguments) {
    const JsonValue value = valueOf(arguments);
    return outcomeOf(&objectOf(value));
}

/// The outcome for a program of no interest with `members`, as JSON text, beside its path.
inline ReadOutcome outcomeWith(const std::string& members) {
    return outcomeOf(R"({"path":"/bin/true",)" + members + "}");
}

inline std::string genericAnswer(const std::string& description) {
    return writeJson(makeErrorResponse(genericError, description));
}

/// Both channels at once: the answer's description, and the line on standard error without its end.
inline void expectFailure(const ReadOutcome& outcome, const std::string& description,
                          const std::string& line) {
    EXPECT_EQ(outcome.answer, genericAnswer(description));
    EXPECT_EQ(outcome.standardError, line.empty() ? "" : line + "\n");
}

inline void expectFailure(const ReadOutcome& outcome, const std::string& description) {
    expectFailure(outcome, description, "handleGuestExec: " + description);
}

inline void expectQuietFailure(const ReadOutcome& outcome, const std::string& description) {
    expectFailure(outcome, description, "");
}

/// The request that was read; a failed test when there is an error.
inline ExecRequest requestOf(ReadOutcome outcome) {
    EXPECT_EQ(outcome.answer, "");
    EXPECT_EQ(outcome.standardError, "");
    return std::move(outcome.request);
}

}  // namespace corvane
