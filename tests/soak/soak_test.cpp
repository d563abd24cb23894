// How much is done follows the environment, so that a short run belongs to every test run:
// CORVANE_SOAK_PROGRAMS, CORVANE_SOAK_OPENS, CORVANE_SOAK_CONNECTIONS, CORVANE_SOAK_HOSTS,
// CORVANE_SOAK_SECONDS, CORVANE_SOAK_SEED.

#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include <boost/json/array.hpp>
#include <gtest/gtest.h>

#include "tests/soak/local_agent.h"
#include "tests/vm/soak/questions.h"
#include "tests/vm/soak/soak_report.h"
#include "tests/vm/support/wire_terminal.h"

namespace corvane {
namespace {

using vm::Dice;
using vm::ExecClient;
using vm::FileClient;
using vm::HostClient;
using vm::ProgramState;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool sanitized = true;  // its allocator keeps what was freed
#else
constexpr bool sanitized = false;
#endif

class Soak : public testing::Test {
 protected:
    Soak() { std::cout << "seed " << seed_ << std::endl; }
    ~Soak() override {
        if (HasFailure()) {
            std::cerr << "seed " << seed_ << "\nthe last requests and answers:\n"
                      << record_.text() << "the agent's log:\n"
                      << agent_.log();
        }
    }

    HostClient connect() {
        HostClient host = agent_.connectHost();
        host.recordIn(record_);
        host.synchronise();
        return host;
    }

    /// Runs `work` with a small count, so that what is allocated once is there, and then with
    /// `count`. All must be as before.
    template <typename Work>
    void expectNothingLeft(std::size_t count, const std::string& what, Work work) {
        work(count / 20 + 1);
        vm::Footprint before = vm::footprintOf(agent_);
        work(count);
        const vm::Footprint after = vm::footprintOf(agent_);
        if (sanitized) {
            before.privateKibibytes = after.privateKibibytes;
        }
        EXPECT_EQ(vm::compare(before, after, std::to_string(count) + ' ' + what), "");
    }

    LocalAgent agent_;
    std::uint64_t seed_ = vm::soakSeed();
    Dice dice_{seed_};
    vm::TrafficRecord record_;
};

TEST_F(Soak, WhatAProgramLeavesBehindIsCountedWhateverItsEnvironment) {
    HostClient host = connect();
    ExecClient exec(host);
    const int before = std::stoi(agent_.processes());
    ExecClient::Arguments program = vm::shellCommand("sleep 1000 & echo $!");
    program["capture-output"] = true;
    program["env"] = boost::json::array{"PATH=/usr/bin:/bin"};
    const ProgramState end = exec.awaitExit(exec.start(program));
    const pid_t orphan = std::stoi(end.output.value());
    EXPECT_EQ(std::stoi(agent_.processes()), before + 1);
    EXPECT_EQ(agent_.zombies(), "0");
    ::kill(orphan, SIGKILL);
    siginfo_t ended{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(orphan), &ended, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(agent_.zombies(), "1");
    ASSERT_EQ(::waitpid(orphan, nullptr, 0), orphan);
    EXPECT_EQ(std::stoi(agent_.processes()), before);
}

/// A program that ends at once, and how.
struct ShortProgram {
    ExecClient::Arguments arguments;
    ProgramState end;
};

ShortProgram shortProgram(Dice& dice) {
    const auto exits = [](int code) {
        return ProgramState{true, code, std::nullopt, std::nullopt, std::nullopt};
    };
    const int code = static_cast<int>(dice.below(256));
    switch (dice.below(10)) {
        case 0:
            return {vm::shellCommand("exit " + std::to_string(code)), exits(code)};
        case 1: {
            ShortProgram program{
                vm::shellCommand("cat; printf error >&2; exit " + std::to_string(code)),
                {true, code, std::nullopt, "hello", "error"}};
            program.arguments["capture-output"] = true;
            program.arguments["input-data"] = "aGVsbG8=";
            return program;
        }
        case 2:
            return {vm::shellCommand("kill -9 $$"),
                    {true, std::nullopt, SIGKILL, std::nullopt, std::nullopt}};
        case 3:
            return {{{"path", "/no/such/program"}}, exits(255)};
        case 4:
        case 5:
            return {{{"path", "/bin/false"}}, exits(1)};
        default:
            return {{{"path", "/bin/true"}}, exits(0)};
    }
}

TEST_F(Soak, EachProgramsEndIsToldOnceAndNothingIsLeft) {
    HostClient host = connect();
    ExecClient exec(host);
    std::size_t told = 0;
    const auto work = [&](std::size_t count) {
        constexpr std::size_t together = 50;
        for (std::size_t done = 0; done < count; done += together) {
            std::vector<ShortProgram> programs;
            std::vector<ExecClient::Arguments> requests;
            for (std::size_t index = 0; index < together; ++index) {
                programs.push_back(shortProgram(dice_));
                requests.push_back(programs.back().arguments);
            }
            const std::vector<pid_t> pids = exec.startAll(requests);
            const std::vector<ProgramState> ends = exec.awaitAll(pids);
            for (std::size_t index = 0; index < together; ++index) {
                const ProgramState& end = programs[index].end;
                ASSERT_EQ(ends[index].exitCode, end.exitCode) << programs[index].arguments;
                ASSERT_EQ(ends[index].signal, end.signal) << programs[index].arguments;
                ASSERT_EQ(ends[index].output, end.output) << programs[index].arguments;
                ASSERT_EQ(ends[index].errorOutput, end.errorOutput) << programs[index].arguments;
            }
            told += together;
            // Each question after it leaves a trace in the agent: one is enough.
            ASSERT_EQ(exec.refusalOf("guest-exec-status", {{"pid", pids[dice_.below(together)]}}),
                      "invalid PID");
        }
    };
    expectNothingLeft(vm::soakNumber("CORVANE_SOAK_PROGRAMS", 500), "programs", work);
    std::cout << told << " ends were told\n";
}

TEST_F(Soak, FilesThatAreOpenedAndClosedLeaveNothing) {
    HostClient host = connect();
    FileClient files(host);
    const std::string path = agent_.shell("mktemp -p " + agent_.captureDirectory());
    std::size_t closed = 0;
    const auto work = [&](std::size_t count) {
        constexpr std::size_t together = 500;
        for (std::size_t done = 0; done < count; done += together) {
            std::vector<FileClient::Arguments> opens;
            for (std::size_t index = 0; index < together; ++index) {
                constexpr std::array modes{"r", "w", "a", "r+", "w+", "a+"};
                opens.push_back({{"path", path}, {"mode", modes[dice_.below(modes.size())]}});
            }
            std::vector<FileClient::Arguments> closes;
            for (const auto& answer : files.askAll("guest-file-open", opens)) {
                closes.push_back({{"handle", answer.at("return")}});
            }
            // Some have something to be written still.
            const auto some = static_cast<std::ptrdiff_t>(dice_.below(50));
            std::vector<FileClient::Arguments> writes(closes.begin(), closes.begin() + some);
            for (FileClient::Arguments& write : writes) {
                write["buf-b64"] = "aGVsbG8=";
            }
            files.askAll("guest-file-write", writes);
            for (const auto& answer : files.askAll("guest-file-close", closes)) {
                ASSERT_TRUE(answer.as_object().contains("return")) << answer;
            }
            closed += together;
        }
    };
    expectNothingLeft(vm::soakNumber("CORVANE_SOAK_OPENS", 10'000), "files", work);
    std::cout << closed << " files were opened and closed\n";
}

/// Programs and transfers whose streams are connections to the host, which may leave them.
class SoakOnVsock : public Soak {
 protected:
    void useOnce() {
        // Each port once: its socket stays in the agent's folder.
        const unsigned port = ++lastPort_;
        const vm::Descriptor listener = agent_.listenAtVsock(port);
        const std::string bytes = dice_.bytes(dice_.below(50'000));
        switch (dice_.below(4)) {
            case 0:
                runCat(port, listener, bytes);
                break;
            case 1:
                runOnTerminal(port, listener);
                break;
            case 2:
                transferToHost(port, listener);
                break;
            default:
                transferToGuest(port, listener, bytes);
                break;
        }
    }

    HostClient host_ = connect();

 private:
    void runCat(unsigned port, const vm::Descriptor& listener, const std::string& bytes) {
        const pid_t pid = exec_.start(
            {{"path", "/bin/cat"}, {"mirel-vsock-stdio", "vsock://2:" + std::to_string(port)}});
        vm::LineSocket connection = vm::LineSocket::acceptFrom(listener);
        connection.send(bytes);
        if (dice_.oneIn(3)) {
            connection.disconnect();
            exec_.awaitExit(pid);  // however it takes that
            return;
        }
        connection.finishSending();
        EXPECT_TRUE(connection.receiveAll() == bytes);
        EXPECT_EQ(exec_.awaitExit(pid).exitCode, 0);
    }

    void runOnTerminal(unsigned port, const vm::Descriptor& listener) {
        ExecClient::Arguments program = vm::shellCommand("stty size; exit 5");
        program["mirel-vsock-stdio"] = "vsock://2:" + std::to_string(port);
        program["mirel-termios"] = vm::cookedTerminal.record();
        program["mirel-window-size"] = {{"rows", 30}, {"columns", 100}};
        const pid_t pid = exec_.start(program);
        EXPECT_EQ(vm::LineSocket::acceptFrom(listener).receiveAll(), "30 100\r\n");
        EXPECT_EQ(exec_.awaitExit(pid).exitCode, 5);
    }

    void transferToHost(unsigned port, const vm::Descriptor& listener) {
        const bool leaves = dice_.oneIn(3);
        const auto handle = files_.open(leaves ? "/dev/zero" : "/bin/true");
        files_.startTransfer(FileClient::Direction::read, handle, port);
        vm::LineSocket connection = vm::LineSocket::acceptFrom(listener);
        if (leaves) {
            connection.receive(dice_.below(100'000));
            connection.disconnect();
            EXPECT_TRUE(files_.awaitRefusal().starts_with("write error"));
        } else {
            EXPECT_EQ(connection.receiveAll().size(), files_.awaitTransfer().count);
        }
        files_.close(handle);
    }

    void transferToGuest(unsigned port, const vm::Descriptor& listener, const std::string& bytes) {
        const auto handle = files_.open("/dev/null", "w");
        files_.startTransfer(FileClient::Direction::write, handle, port);
        vm::LineSocket connection = vm::LineSocket::acceptFrom(listener);
        connection.send(bytes);
        connection.disconnect();
        EXPECT_EQ(files_.awaitTransfer().count, bytes.size());
        files_.close(handle);
    }

    ExecClient exec_{host_};
    FileClient files_{host_};
    unsigned lastPort_ = 70000;
};

TEST_F(SoakOnVsock, ProgramsAndTransfersLeaveNothing) {
    expectNothingLeft(vm::soakNumber("CORVANE_SOAK_CONNECTIONS", 100), "connections",
                      [this](std::size_t count) {
                          for (std::size_t done = 0; done < count; ++done) {
                              useOnce();
                          }
                      });
}

TEST_F(Soak, HostsThatVanishAtAnyByteLeaveNothing) {
    std::size_t hosts = 0;
    std::size_t answered = 0;
    const auto work = [&](std::size_t count) {
        for (std::size_t done = 0; done < count; ++done) {
            HostClient host = connect();
            const vm::Question question = vm::randomQuestion(dice_);
            ASSERT_TRUE(host.request(question.line).starts_with(question.answer)) << question.line;
            ++answered;
            std::string lines = vm::randomQuestion(dice_).line + '\n';
            lines += vm::randomQuestion(dice_).line + '\n';
            host.sendWhileReceiving(lines.substr(0, dice_.below(lines.size() + 1)));
            host.disconnect();
            ++hosts;
        }
    };
    expectNothingLeft(vm::soakNumber("CORVANE_SOAK_HOSTS", 200), "hosts", work);
    std::cout << hosts << " hosts have vanished, " << answered << " questions were answered\n";
}

TEST_F(Soak, RandomLoadLeavesNothingBehind) {
    vm::SoakLoad load(agent_, seed_);
    const std::chrono::seconds span(vm::soakNumber("CORVANE_SOAK_SECONDS", 5));
    try {
        load.askAfterEveryProcess();
        load.run(std::chrono::seconds(3));
        expectNothingLeft(
            static_cast<std::size_t>(span.count()), "s of random requests",
            [&load](std::size_t seconds) { load.run(std::chrono::seconds(seconds)); });
        std::cout << load.figures();
    } catch (const std::exception& failure) {
        ADD_FAILURE() << failure.what() << "\nthe last requests and answers:\n"
                      << load.figures() << load.lastTraffic();
    }
}

}  // namespace
}  // namespace corvane
