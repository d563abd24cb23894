#include <string>
#include <vector>

#include "tests/vm/exec_fixture.h"
#include "tests/vm/support/base64.h"

namespace corvane::vm {
namespace {

class StreamsOfPrograms : public ExecTest {
 protected:
    /// Compares without showing megabytes.
    static void expectSame(const std::string& bytes, const std::string& expected) {
        EXPECT_EQ(bytes.size(), expected.size());
        EXPECT_TRUE(bytes == expected);
    }

    static constexpr const char* captureDirectory = "/run/corvane";
};

TEST_F(StreamsOfPrograms, InputDataOfAnySizeReachesTheProgramWhole) {
    for (const std::size_t size : {0U, 1U, 65'535U, 65'536U, 65'537U, 10'000'000U}) {
        SCOPED_TRACE(size);
        const std::string bytes = randomBytes(size);
        const ProgramState state =
            exec().run({{"path", "/bin/cat"}, {"input-data", encodeBase64(bytes)}});
        EXPECT_EQ(state.exitCode, 0);
        expectSame(state.output.value_or("none"), bytes);
        EXPECT_EQ(state.errorOutput, "");
    }
}

TEST_F(StreamsOfPrograms, InputDataEndsWithAnEndOfFile) {
    EXPECT_EQ(
        exec()
            .run({{"path", "/bin/wc"}, {"arg", {"-c"}}, {"input-data", encodeBase64("seven..")}})
            .output,
        "7\n");
    EXPECT_EQ(exec().run({{"path", "/bin/wc"}, {"arg", {"-c"}}, {"input-data", ""}}).output, "0\n");
    EXPECT_EQ(exec().run({{"path", "/bin/wc"}, {"arg", {"-c"}}}).output, "0\n");
}

TEST_F(StreamsOfPrograms, AProgramThatEndsWithoutReadingItsInputHoldsNobody) {
    const std::string input = encodeBase64(std::string(1'000'000, 'x'));
    for (int round = 0; round < 20; ++round) {
        EXPECT_EQ(exec().run({{"path", "/bin/true"}, {"input-data", input}}).exitCode, 0);
    }
    EXPECT_EQ(exec().run({{"path", "/bin/no-such-program"}, {"input-data", input}}).exitCode, 255);
    const ProgramState some =
        exec().run({{"path", "/bin/head"}, {"arg", {"-c", "3"}}, {"input-data", input}});
    EXPECT_EQ(some.output, "xxx");
}

TEST_F(StreamsOfPrograms, GrowingOutputIsWholeAtEveryPoll) {
    const std::string piece = randomBytes(4'000'000);
    Arguments copy{{"path", "/bin/cat"}, {"input-data", encodeBase64(piece)}};
    shell().check("rm -f /run/gate; mkfifo /run/gate; : > /run/piece");
    copy["mirel-stdout"] = "/run/piece";
    ASSERT_EQ(exec().awaitExit(exec().start(copy)).exitCode, 0);
    // 20 MB in all; the gate makes sure that there is a poll in the middle.
    const std::string firstPart = piece + piece;
    const std::string expected = firstPart + firstPart + piece;
    Arguments program = shellCommand(
        "cd /run; cat piece piece; read go < gate; cat piece; cat piece; cat piece; rm piece");
    program["capture-output"] = true;
    const pid_t pid = exec().start(program);

    std::size_t seen = 0;
    std::size_t growths = 0;
    const auto look = [&] {
        ProgramState state = exec().poll(pid);
        const std::string& output = state.output.value();
        EXPECT_GE(output.size(), seen);
        EXPECT_TRUE(expected.compare(0, output.size(), output) == 0) << output.size();
        EXPECT_EQ(state.errorOutput, "");
        growths += output.size() > seen ? 1U : 0U;
        seen = output.size();
        return state.exited;
    };
    while (seen < firstPart.size() && !HasFailure()) {
        ASSERT_FALSE(look());
    }
    EXPECT_EQ(seen, firstPart.size());
    shell().check("echo > /run/gate");
    while (!look()) {
    }
    EXPECT_EQ(seen, expected.size());
    EXPECT_GE(growths, 2U);
}

TEST_F(StreamsOfPrograms, OutputAndErrorOutputAreApart) {
    const ProgramState state = exec().run(
        shellCommand("for i in 1 2 3; do echo out$i; echo error$i >&2; done; exec true"));
    EXPECT_EQ(state.output, "out1\nout2\nout3\n");
    EXPECT_EQ(state.errorOutput, "error1\nerror2\nerror3\n");
}

TEST_F(StreamsOfPrograms, ProgramsThatRunTogetherDoNotMix) {
    const auto writer = [](const std::string& word) {
        Arguments program = shellCommand("i=0; while [ $i -lt 3000 ]; do echo " + word +
                                         "$i; i=$((i + 1)); done; echo done " + word + " >&2");
        program["capture-output"] = true;
        return program;
    };
    const std::vector<pid_t> pids = exec().startAll({writer("a"), writer("b"), writer("c")});
    const auto states = exec().awaitAll(pids);
    for (std::size_t index = 0; index < pids.size(); ++index) {
        const std::string word(1, static_cast<char>('a' + index));
        std::string expected;
        for (int number = 0; number < 3000; ++number) {
            expected += word + std::to_string(number) + '\n';
        }
        expectSame(states[index].output.value(), expected);
        EXPECT_EQ(states[index].errorOutput, "done " + word + '\n');
    }
}

TEST_F(StreamsOfPrograms, CaptureFilesAndTheirDescriptorsGoWithTheLastPoll) {
    const std::string files = std::string("ls ") + captureDirectory + " | wc -l";
    const int filesBefore = std::stoi(shell().check(files));
    const int descriptorsBefore = std::stoi(shell().check(countDescriptors()));
    Arguments program{{"path", "/bin/sleep"}, {"arg", {"1000"}}, {"capture-output", true}};
    const pid_t pid = exec().start(program);
    EXPECT_EQ(std::stoi(shell().check(files)), filesBefore + 2);
    EXPECT_EQ(std::stoi(shell().check(countDescriptors())), descriptorsBefore + 2);
    EXPECT_EQ(shell().check(std::string("stat -c %a ") + captureDirectory), "700");
    end(pid);
    EXPECT_EQ(std::stoi(shell().check(files)), filesBefore);
    EXPECT_EQ(std::stoi(shell().check(countDescriptors())), descriptorsBefore);
}

TEST_F(StreamsOfPrograms, StreamsMayBeFiles) {
    shell().check("printf input > /run/from; : > /run/to; : > /run/error");
    Arguments program = shellCommand("cat; echo trouble >&2");
    program["mirel-stdin"] = "/run/from";
    program["mirel-stdout"] = "/run/to";
    program["mirel-stderr"] = "/run/error";
    const ProgramState state = exec().awaitExit(exec().start(program));
    EXPECT_EQ(state.exitCode, 0);
    EXPECT_FALSE(state.output);
    EXPECT_EQ(shell().check("cat /run/to /run/error"), "inputtrouble");
}

TEST_F(StreamsOfPrograms, AProgramHasNoDescriptorsButItsOwn) {
    shell().check(": > /run/listing");
    const auto plainListing = [this] {
        exec().awaitExit(exec().start(
            {{"path", "/usr/bin/list_descriptors"}, {"mirel-stdout", "/run/listing"}}));
        return shell().check("tr '\\n' ' ' < /run/listing");
    };
    const auto capturedCount = [this] {
        const std::string listing =
            exec().run({{"path", "/usr/bin/list_descriptors"}}).output.value_or("");
        EXPECT_TRUE(listing.starts_with("0\n1\n2\n")) << listing;
        return countOf("\n", listing);
    };
    EXPECT_EQ(plainListing(), "0 1 2 ");
    EXPECT_EQ(capturedCount(), 5U);

    // Other programs' files, pipes and connections are not for it.
    std::vector<pid_t> others;
    for (int count = 0; count < 3; ++count) {
        others.push_back(exec().start({{"path", "/bin/sleep"},
                                       {"arg", {"1000"}},
                                       {"capture-output", true},
                                       {"input-data", ""}}));
    }
    others.push_back(startOnTerminal({{"path", "/bin/sleep"}, {"arg", {"1000"}}}));
    EXPECT_EQ(plainListing(), "0 1 2 ");
    EXPECT_EQ(capturedCount(), 5U);
    for (const pid_t other : others) {
        end(other);
    }
}

TEST_F(StreamsOfPrograms, WhatACapturingProgramHasBesidesItsStreamsAreItsOwnCaptureFiles) {
    const pid_t pid =
        exec().start({{"path", "/bin/sleep"}, {"arg", {"1000"}}, {"capture-output", true}});
    const std::string directory = "/proc/" + std::to_string(pid) + "/fd/";
    awaitProgram(pid);
    const std::string links =
        shell().check("for n in $(ls " + directory + "); do readlink " + directory + "$n; done");
    const std::string output = shell().check("readlink " + directory + "1");
    const std::string errorOutput = shell().check("readlink " + directory + "2");
    EXPECT_TRUE(output.starts_with(std::string(captureDirectory) + "/stdout_")) << output;
    EXPECT_TRUE(errorOutput.starts_with(std::string(captureDirectory) + "/stderr_")) << errorOutput;
    EXPECT_EQ(countOf(output, links), 2U) << links;
    EXPECT_EQ(countOf(errorOutput, links), 2U) << links;
    EXPECT_EQ(countOf("\n", links), 4U) << links;  // and the input
    end(pid);
}

}  // namespace
}  // namespace corvane::vm
