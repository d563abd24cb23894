#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "commands/exec/exec_request.h"
#include "commands/exec/process_table.h"
#include "core/json_value.h"
#include "tests/fakes/descriptor_count.h"
#include "tests/fakes/fake_platform.h"

namespace corvane {

/// How a program has ended, and what it has left.
struct ProgramEnd {
    int status = -1;  ///< raw wait status
    std::string out;  ///< what was captured
    std::string err;
};

/// Tests that start real programs. No reaper thread: ended children are reaped when they are asked
/// for.
class ProgramTest : public testing::Test {
 protected:
    ~ProgramTest() override;

    FakePlatform platform_;
};

/// `text` run by a shell.
ExecRequest shellCommand(const std::string& text);

/// The process id of a launch that succeeded, or -1 with a failed test.
pid_t pidOf(const JsonValue& response);

/// The description of a launch that failed, or "" with a failed test.
std::string errorOf(const JsonValue& response);

/// Waits until the program has ended, reaps it and takes it out of the process table, with its
/// capture files.
ProgramEnd endOf(pid_t pid);

/// Starts it and waits for its end. Output is captured.
ProgramEnd run(ExecRequest request);

/// Waits until `pid` has ended, and leaves it to be reaped.
void awaitEnd(pid_t pid);

/// The whole content of a file, "" where there is none.
std::string contentOf(const std::string& path);

/// `text` at its line feeds.
std::vector<std::string> linesOf(const std::string& text);

}  // namespace corvane
