#include <string>
#include <vector>

#include "tests/vm/exec_fixture.h"

namespace corvane::vm {
namespace {

class ProgramsInTheGuest : public ExecTest {
 protected:
    /// A line of the program's own /proc/self/status, without its name and the tab behind it.
    std::string statusLine(Arguments arguments, const std::string& name) {
        arguments["path"] = "/bin/sed";
        arguments["arg"] = {"-n", "s/^" + name + ":[ \t]*//p", "/proc/self/status"};
        std::string line = exec().run(std::move(arguments)).output.value_or("");
        while (line.ends_with('\n') || line.ends_with(' ')) {
            line.pop_back();
        }
        return line;
    }
};

TEST_F(ProgramsInTheGuest, EveryExitCodeIsReported) {
    std::vector<Arguments> programs;
    for (int code = 0; code < 256; ++code) {
        programs.push_back(shellCommand("exit " + std::to_string(code)));
    }
    const auto states = exec().awaitAll(exec().startAll(programs));
    for (int code = 0; code < 256; ++code) {
        const ProgramState& state = states[static_cast<std::size_t>(code)];
        EXPECT_EQ(state.exitCode, code);
        EXPECT_FALSE(state.signal);
        EXPECT_FALSE(state.output || state.errorOutput) << "not captured";
    }
}

TEST_F(ProgramsInTheGuest, EverySignalThatEndsAProgramIsReported) {
    std::vector<int> numbers;
    for (int number = 1; number <= 64; ++number) {
        // SIGCHLD, SIGCONT, SIGSTOP, SIGTSTP, SIGTTIN, SIGTTOU, SIGURG and SIGWINCH end nobody; 32
        // and 33 are the C library's own.
        if ((number >= 17 && number <= 23) || number == 28 || number == 32 || number == 33) {
            continue;
        }
        numbers.push_back(number);
    }
    const auto pids = exec().startAll(std::vector<Arguments>(
        numbers.size(), Arguments{{"path", "/bin/sleep"}, {"arg", {"1000"}}}));
    for (std::size_t index = 0; index < numbers.size(); ++index) {
        exec().signal(pids[index], numbers[index]);
    }
    const auto states = exec().awaitAll(pids);
    for (std::size_t index = 0; index < numbers.size(); ++index) {
        EXPECT_EQ(states[index].signal, numbers[index]);
        EXPECT_FALSE(states[index].exitCode);
    }
}

TEST_F(ProgramsInTheGuest, ASignalWithAMemoryImageIsReportedByItsNumber) {
    Arguments program = shellCommand("ulimit -c unlimited; kill -11 $$; sleep 1000");
    program["mirel-working-directory"] = "/run";
    EXPECT_EQ(exec().run(program).signal, 11);
    EXPECT_EQ(shell().check("ls /run | grep -c ^core; rm -f /run/core*"), "1");
}

TEST_F(ProgramsInTheGuest, AStoppedProgramHasNotExited) {
    const pid_t pid = exec().start({{"path", "/bin/sleep"}, {"arg", {"1000"}}});
    exec().signal(pid, 19);
    awaitInGuest("sed -n 's/^State:.\\(.\\).*/\\1/p' /proc/" + std::to_string(pid) + "/status",
                 "T");
    EXPECT_FALSE(exec().poll(pid).exited);
    exec().signal(pid, 9);
    EXPECT_EQ(exec().awaitExit(pid).signal, 9);
    EXPECT_EQ(exec().refusalOf("guest-exec-status", {{"pid", pid}}), "invalid PID");
}

TEST_F(ProgramsInTheGuest, WhatCannotBeRunExitsWith255) {
    for (const char* path :
         {"/bin/no-such-program", "no-such-program", "/etc/passwd", "/etc", ""}) {
        EXPECT_EQ(exec().run({{"path", path}}).exitCode, 255) << path;
    }
    // A file passes for a working directory until the program goes there.
    EXPECT_EQ(
        exec().run({{"path", "/bin/true"}, {"mirel-working-directory", "/etc/passwd"}}).exitCode,
        255);
}

TEST_F(ProgramsInTheGuest, GetsItsNameAndArgumentsAsTheyAre) {
    const ProgramState state = exec().run(
        {{"path", "/bin/sh"},
         {"arg",
          {"-c", "printf '<%s>' \"$0\" \"$@\"", "zero", "", "two words", "Grüße", "$HOME"}}});
    EXPECT_EQ(state.output, "<zero><><two words><Grüße><$HOME>");
}

TEST_F(ProgramsInTheGuest, RunsInTheWorkingDirectory) {
    shell().check("mkdir -p '/run/work here'");
    const auto directory = [this](Arguments arguments) {
        arguments["path"] = "/bin/pwd";
        return exec().run(std::move(arguments)).output;
    };
    EXPECT_EQ(directory({{"mirel-working-directory", "/run/work here"}}), "/run/work here\n");
    EXPECT_EQ(directory({}), shell().check("readlink /proc/$(service pid)/cwd") + '\n');
}

TEST_F(ProgramsInTheGuest, AnEnvironmentReplacesTheAgentsOwn) {
    EXPECT_EQ(exec().run({{"path", "/bin/env"}, {"env", {"B=2", "A=one two", "EMPTY="}}}).output,
              "B=2\nA=one two\nEMPTY=\n");
    EXPECT_EQ(exec().run({{"path", "/bin/env"}, {"env", boost::json::array{}}}).output, "");
    EXPECT_EQ(exec().run({{"path", "/bin/env"}}).output,
              shell().check("tr '\\0' '\\n' < /proc/$(service pid)/environ") + '\n');
}

TEST_F(ProgramsInTheGuest, IsSearchedAlongThePathOfItsEnvironment) {
    shell().check(
        "mkdir -p /run/tools; printf '#!/bin/sh\\necho found\\n' > /run/tools/only-here; "
        "chmod 755 /run/tools/only-here");
    EXPECT_EQ(exec().run({{"path", "only-here"}, {"env", {"PATH=/nowhere:/run/tools"}}}).output,
              "found\n");
    EXPECT_EQ(exec().run({{"path", "only-here"}}).exitCode, 255);
    EXPECT_EQ(exec().run({{"path", "pwd"}, {"env", {"PATH=/nowhere"}}}).exitCode, 255);
    // Without a PATH the system's default one serves.
    EXPECT_EQ(exec().run({{"path", "pwd"}, {"env", boost::json::array{}}}).exitCode, 0);
}

TEST_F(ProgramsInTheGuest, UserAndGroupChangeTogetherOrAlone) {
    const auto identity = [this](const Arguments& arguments) {
        return statusLine(arguments, "Uid") + " / " + statusLine(arguments, "Gid");
    };
    const std::string root = "0\t0\t0\t0";
    const std::string tester = "1234\t1234\t1234\t1234";
    const std::string crew = "4321\t4321\t4321\t4321";
    EXPECT_EQ(identity({}), root + " / " + root);
    EXPECT_EQ(identity({{"mirel-uid", 1234}}), tester + " / " + root);
    EXPECT_EQ(identity({{"mirel-user", "tester"}}), tester + " / " + root);
    EXPECT_EQ(identity({{"mirel-gid", 4321}}), root + " / " + crew);
    EXPECT_EQ(identity({{"mirel-group", "crew"}}), root + " / " + crew);
    EXPECT_EQ(identity({{"mirel-user", "tester"}, {"mirel-gid", 4321}}), tester + " / " + crew);
    EXPECT_EQ(identity({{"mirel-uid", 1234}, {"mirel-group", "crew"}}), tester + " / " + crew);

    EXPECT_EQ(exec().refusalOf("guest-exec", {{"path", "/bin/id"}, {"mirel-user", "nobody-else"}}),
              "user nobody-else does not exist");
    EXPECT_EQ(exec().refusalOf("guest-exec", {{"path", "/bin/id"}, {"mirel-gid", 77}}),
              "group 77 does not exist");
}

TEST_F(ProgramsInTheGuest, SupplementaryGroupsStayTheAgents) {
    // Started by su, the agent is in root's groups, of which "wheel" is not root's own.
    shell().check(
        "echo 'exec su root -c \"exec /usr/bin/corvane </dev/null >>/run/log/agent.output 2>&1\"' "
        "> /run/agent/environment");
    restartAgent();
    EXPECT_EQ(statusLine({}, "Groups"), "0 10");
    // "guest" is a member of "crew".
    EXPECT_EQ(statusLine({{"mirel-user", "guest"}, {"mirel-group", "guest"}}, "Groups"), "0 10");
    shell().check("rm /run/agent/environment");
    restartAgent();
}

TEST_F(ProgramsInTheGuest, StartsWithoutBlockedOrIgnoredSignalsInASessionOfItsOwn) {
    EXPECT_EQ(statusLine({}, "SigBlk"), "0000000000000000");
    EXPECT_EQ(statusLine({}, "SigIgn"), "0000000000000000");
    EXPECT_EQ(statusLine({}, "SigCgt"), "0000000000000000");
    // Fields of stat(5): 1 the process, 5 its group, 6 its session.
    const std::string numbers =
        exec()
            .run({{"path", "/bin/awk"}, {"arg", {"{ print $1, $5, $6 }", "/proc/self/stat"}}})
            .output.value_or("");
    const std::string pid = numbers.substr(0, numbers.find(' '));
    EXPECT_EQ(numbers, pid + ' ' + pid + ' ' + pid + '\n');
}

}  // namespace
}  // namespace corvane::vm
