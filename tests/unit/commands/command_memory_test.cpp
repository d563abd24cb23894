// Every command, by way of the read loop and on the guest's own services where that does no harm,
// with each allocation failing in turn that the request makes.

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "commands/all_commands.h"
#include "commands/exec/process_table.h"
#include "commands/exec/reaper.h"
#include "commands/files/file_handle_table.h"
#include "core/command_table.h"
#include "core/read_loop.h"
#include "platform/linux/linux_accounts.h"
#include "platform/linux/linux_file_streams.h"
#include "platform/linux/linux_network_interfaces.h"
#include "platform/linux/linux_private_directory.h"
#include "platform/linux/linux_terminals.h"
#include "platform/platform.h"
#include "tests/fakes/allocation_free_services.h"
#include "tests/fakes/child_process.h"
#include "tests/fakes/descriptor_count.h"
#include "tests/fakes/failing_allocations.h"
#include "tests/fakes/fake_platform.h"

namespace corvane {
namespace {

constexpr unsigned hangLimit = 300;  // seconds, and no test comes near it

const std::string success = "{\"return\":{}}\n";
const std::string outOfMemoryAnswer = R"({"error":{"class":"GenericError","desc":"out of memory"}})"
                                      "\n";

std::string errorAnswer(const std::string& description) {
    return R"({"error":{"class":"GenericError","desc":")" + description + "\"}}\n";
}

std::string request(const std::string& command, const std::string& arguments) {
    return R"({"execute":")" + command + R"(","arguments":)" + arguments + "}";
}

/// Each run of digits as one: process ids, handles and times differ from run to run.
std::string withoutNumbers(const std::string& text) {
    std::string made;
    for (const char letter : text) {
        const bool isDigit = std::isdigit(static_cast<unsigned char>(letter)) != 0;
        if (!isDigit) {
            made += letter;
        } else if (!made.ends_with('#')) {
            made += '#';
        }
    }
    return made;
}

std::string numberIn(const std::string& answer) {
    const auto start = answer.find_first_of("0123456789");
    return answer.substr(start, answer.find_first_not_of("0123456789", start) - start);
}

class CommandWithoutMemory : public testing::Test {
 protected:
    CommandWithoutMemory() {
        std::string name = std::filesystem::temp_directory_path() / "corvane-test-XXXXXX";
        directory_ = ::mkdtemp(name.data());
    }
    ~CommandWithoutMemory() override { std::filesystem::remove_all(directory_); }

    void SetUp() override {
        ::alarm(hangLimit);
        useCommandTable(allCommands);
        std::ofstream(path("file")) << "some content";
        std::ofstream(path("out")) << "";
        // The services notice what they are asked, which must not be what fails.
        fakes_.vsockSockets.createError = 0;
        fakes_.remoteLogin.available = true;
        descriptors_ = countDescriptors();
    }
    void TearDown() override {
        stopFailingAllocations();
        useCommandTable({});
        ::alarm(0);
    }

    [[nodiscard]] std::string path(const std::string& name) const {
        return directory_ + "/" + name;
    }
    [[nodiscard]] std::string captureDirectory() const { return path("captured"); }

    struct Outcome {
        bool reached = false;  ///< there was such an allocation
        std::string answer;
    };

    /// Sends a line while one allocation fails, and a ping afterwards, which must be answered.
    Outcome run(const std::string& line, long allocation) {
        device_.pieces = {line + "\n", "{\"execute\":\"guest-ping\"}\n"};
        device_.next = 0;
        device_.sent.clear();
        Outcome outcome;
        {
            ReadLoop loop;
            failAllocations(allocation, 1);
            loop.pass();
            outcome.reached = stopFailingAllocations() == 0;
            outcome.answer = device_.sent;
            device_.sent.clear();
            loop.pass();
        }
        EXPECT_EQ(device_.sent, success) << allocation << ": " << line;
        device_.pieces.clear();
        return outcome;
    }

    std::string answerTo(const std::string& line) { return run(line, never).answer; }

    std::string openFile(const std::string& name, const std::string& mode) {
        return numberIn(answerTo(
            request("guest-file-open", R"({"path":")" + name + R"(","mode":")" + mode + "\"}")));
    }

    /// Starts a program and waits for its end, which stays to be asked for.
    std::string endedProgram(const std::string& arguments) {
        std::string pid = numberIn(answerTo(request("guest-exec", arguments)));
        awaitChildren();
        return pid;
    }

    /// What a request does, and what else may be said of it than what is said with memory, and
    /// "out of memory".
    struct Subject {
        /// Prepares what is needed, with memory, and makes the request.
        std::function<std::string()> request;
        std::vector<std::string> failures = {};
        /// Looks at what it has come to. Told whether it was answered as with memory.
        std::function<void(bool done)> check = [](bool) {};
    };

    /// Fails each allocation once. The state of the agent must be consistent after each. All of
    /// that is done twice, after which no more memory may be in use than after the first time: the
    /// C library keeps some.
    void expectConsistency(const std::string& name, const Subject& subject) {
        SCOPED_TRACE(name);
        const std::string regular = withoutNumbers(tryOnce(subject, never, "").answer);
        const long count = failEach(subject, regular);
        const long live = liveAllocations();
        failEach(subject, regular);
        EXPECT_EQ(liveAllocations(), live) << "memory that is not given back";
        EXPECT_GE(count, 3) << "the request itself is allocated";
        counts_ += count;
    }

    FakePlatform fakes_;
    QuietLog log_;
    PiecewiseDevice device_;
    long counts_ = 0;  ///< of all allocations that have failed

    static constexpr long never = 1'000'000'000;

 private:
    /// Returns how many allocations there are. The last try is one without a failure.
    long failEach(const Subject& subject, const std::string& regular) {
        long count = 0;
        while (tryOnce(subject, count, regular).reached) {
            ++count;
        }
        return count;
    }

    Outcome tryOnce(const Subject& subject, long allocation, const std::string& regular) {
        const std::string line = subject.request();
        Outcome outcome = run(line, allocation);
        const bool done = withoutNumbers(outcome.answer) == regular;
        const std::string plain =
            outcome.answer.starts_with('\xFF') ? outcome.answer.substr(1) : outcome.answer;
        const bool told =
            done || plain == outOfMemoryAnswer || std::ranges::count(subject.failures, plain) > 0;
        EXPECT_TRUE(regular.empty() || told)
            << "allocation " << allocation << ": " << outcome.answer;
        EXPECT_TRUE(done || outcome.reached || regular.empty()) << outcome.answer;
        if (!regular.empty()) {
            SCOPED_TRACE("allocation " + std::to_string(allocation) + ": " + outcome.answer);
            subject.check(done);
        }
        cleanUp();
        return outcome;
    }

    /// Waits for the end of all children, and reaps them as the agent does.
    static void awaitChildren() {
        siginfo_t info{};
        while (::waitid(P_ALL, 0, &info, WEXITED | WNOWAIT) == 0) {
            drainEndedChildren();
        }
    }

    /// Takes away what a request may have left, which must be what the tables say.
    void cleanUp() {
        fakes_.vsockSockets.hostEnds.clear();
        fakes_.vsockSockets.connections.clear();
        fakes_.vsockSockets.nextSocket.closeNow();
        fakes_.remoteLogin.switched.clear();
        fakes_.clock.attempts.clear();
        awaitChildren();
        for (const auto& [key, stream] : fileHandleTable) {
            std::fclose(stream);
        }
        fileHandleTable.clear();
        for (const auto& [pid, record] : processTable) {
            if (record && record->captureOutput) {
                ::close(record->outFd);
                ::close(record->errFd);
                EXPECT_TRUE(std::filesystem::remove(record->outPath));
                EXPECT_TRUE(std::filesystem::remove(record->errPath));
            }
            EXPECT_TRUE(!record || !record->running);
        }
        processTable.clear();
        EXPECT_EQ(countDescriptors(), descriptors_);
        EXPECT_TRUE(!std::filesystem::exists(captureDirectory()) ||
                    std::filesystem::is_empty(captureDirectory()));
    }

    std::string directory_;
    std::size_t descriptors_ = 0;
    LinuxAccounts accounts_;
    LinuxPrivateDirectory privateDirectory_{captureDirectory()};
    LinuxTerminals terminals_;
    LinuxFileStreams fileStreams_;
    LinuxNetworkInterfaces networkInterfaces_;
    Platform services_{log_,
                       fakes_.firmware,
                       fakes_.serialDevices,
                       fakes_.hypervisor,
                       device_,
                       fakes_.vsockSockets,
                       fakes_.remoteLogin,
                       accounts_,
                       privateDirectory_,
                       terminals_,
                       fakes_.processInformation,
                       fileStreams_,
                       networkInterfaces_,
                       fakes_.powerControl,
                       fakes_.hidEvents,
                       fakes_.clock};
    PlatformScope scope_{services_};
};

TEST_F(CommandWithoutMemory, RequestsThatChangeNothingAreAnswered) {
    const std::array lines{
        request("guest-ping",
                R"({"list":[1,{"deep":[true]}],"text":")" + std::string(3000, 'x') + "\"}"),
        request("guest-sync", R"({"id":7})"),
        request("guest-sync", R"({"id":"7"})"),
        request("guest-sync-delimited", R"({"id":7})"),
        request("guest-sync-delimited", "{}"),
        request("guest-info", "{}"),
        request("guest-get-time", "{}"),
        request("guest-exec", R"({"path":"sh","arg":["a",1]})"),
        request("guest-exec", R"({"path":"sh","env":["A=1"],"input-data":"a b"})"),
        request("guest-exec", R"({"path":"sh","mirel-working-directory":"/no/such"})"),
        request("guest-exec", R"({"path":"sh","mirel-stdin":"/no/such"})"),
        request("guest-exec", R"({"path":"sh","mirel-vsock-stdio":"x"})"),
        request("guest-exec", R"({"path":"sh","mirel-termios":{"cc":[1]}})"),
        request("guest-exec-status", R"({"pid":99999999})"),
        request("guest-exec-status", R"({"pid":"1"})"),
        request("mirel-guest-signal-pid", R"({"pid":99999999,"signal":9})"),
        request("mirel-guest-signal-pid", R"({"pid":99999999,"signal":28})"),
        request("guest-file-open", R"({"path":"/no/such/file","mode":"r"})"),
        request("guest-file-open", R"({"path":"/tmp","mode":1})"),
        request("guest-file-close", R"({"handle":1})"),
        request("guest-file-read", R"({"handle":1})"),
        request("guest-file-write", R"({"handle":1})"),
        request("guest-file-seek", R"({"handle":"1"})"),
        request("guest-file-flush", "{}"),
        request("mirel-guest-file-vsock-read", R"({"handle":1})"),
        request("mirel-guest-file-vsock-write", R"({"handle":1})"),
        request("guest-shutdown", R"({"mode":"sideways"})"),
        request("guest-set-time", R"({"time":"0"})"),
        request("mirel-guest-set-remote-login", R"({"enabled":"no"})"),
        request("no-such-command", "{}"),
        std::string("[1,2]"),
        std::string("{}"),
        std::string("no JSON"),
        request("guest-ping", "null"),
    };
    for (const std::string& line : lines) {
        expectConsistency(line.substr(0, 100), {[&line] { return line; }});
    }
    EXPECT_TRUE(fakes_.powerControl.performed().empty());
    EXPECT_GT(counts_, 300);
}

TEST_F(CommandWithoutMemory, InterfacesAreListedOrNot) {
    // The C library's own allocations fail with their own error.
    expectConsistency("all of them",
                      {[] { return request("guest-network-get-interfaces", "{}"); },
                       {errorAnswer("getifaddrs error 12"), errorAnswer("getifaddrs error 0")}});
}

/// Nobody has been started of whom the host does not know.
void expectProgramOnlyWhenTold(bool told) {
    EXPECT_EQ(processTable.size(), told ? 1U : 0U);
}

TEST_F(CommandWithoutMemory, ProgramIsStartedAndToldOrNotStarted) {
    const std::string plain = R"({"path":"/bin/true")";
    const std::array<std::pair<std::string, std::vector<std::string>>, 6> programs{{
        {plain + "}", {}},
        {R"({"path":"/bin/cat","capture-output":true,"input-data":"aGVsbG8="})", {}},
        {plain + R"(,"arg":["a","b"],"env":["PATH=/bin","A=1"],"mirel-working-directory":"/tmp"})",
         {}},
        {plain + R"(,"mirel-user":"root","mirel-group":"root"})",
         {errorAnswer("failed to find user root: Cannot allocate memory"),
          errorAnswer("failed to find group root: Cannot allocate memory")}},
        {plain + R"(,"mirel-stdin":")" + path("file") + R"(","mirel-stdout":")" + path("out") +
             "\"}",
         {}},
        {plain + R"(,"mirel-vsock-stdio":"vsock://2:1234"})", {}},
    }};
    for (const auto& [arguments, failures] : programs) {
        expectConsistency(arguments, {[&line = arguments] { return request("guest-exec", line); },
                                      failures, expectProgramOnlyWhenTold});
    }
}

TEST_F(CommandWithoutMemory, ProgramOnATerminalLeavesNoRelayBehind) {
    std::string line = request(
        "guest-exec", R"({"path":"/bin/true","mirel-vsock-stdio":"vsock://2:1234",)"
                      R"("mirel-window-size":{"rows":24,"columns":80},"mirel-termios":)"
                      R"({"iflag":0,"oflag":0,"cflag":0,"lflag":0,"ispeed":9600,"ospeed":9600}})");
    expectConsistency("terminal", {[&line] { return line; }, {}, expectProgramOnlyWhenTold});
}

TEST_F(CommandWithoutMemory, EndOfAProgramIsToldOrKept) {
    for (const char* captured : {"0", "1"}) {
        std::string pid;
        expectConsistency(
            captured,
            {[this, &pid, captured] {
                 pid =
                     endedProgram(R"({"path":"/bin/sh","arg":["-c","echo out"],"capture-output":)" +
                                  std::string(captured) + "}");
                 return request("guest-exec-status", R"({"pid":)" + pid + "}");
             },
             {R"({"return":{"exited":true,"out-data":"","err-data":"","exitcode":0}})"
              "\n"},
             [this, &pid](bool told) {
                 const auto entry = processTable.find(std::stoi(pid));
                 const bool kept = entry != processTable.end() && entry->second != nullptr;
                 EXPECT_NE(kept, told || device_.sent.empty());
             }});
    }
}

TEST_F(CommandWithoutMemory, RunningProgramIsStillThere) {
    std::string pid;
    expectConsistency(
        "running",
        {[this, &pid] {
             // It waits for its input.
             const std::string answer = answerTo(
                 request("guest-exec", R"({"path":"/bin/cat","mirel-vsock-stdio":"vsock://2:1"})"));
             pid = numberIn(answer);
             return request("guest-exec-status", R"({"pid":)" + pid + "}");
         },
         {},
         [&pid](bool) {
             ASSERT_TRUE(processTable.contains(std::stoi(pid)));
             EXPECT_TRUE(processTable.at(std::stoi(pid))->running);
         }});
}

TEST_F(CommandWithoutMemory, SignalIsSentOrNot) {
    const std::string ourselves = std::to_string(::getpid());
    expectConsistency("signal", {[&ourselves] {
                          return request("mirel-guest-signal-pid",
                                         R"({"signal":0,"pid":)" + ourselves + "}");
                      }});
}

TEST_F(CommandWithoutMemory, FileIsOpenAndToldOrNotOpen) {
    for (const char* mode : {"r", "w", "a+"}) {
        expectConsistency(
            mode, {[this, mode] {
                       return request("guest-file-open", R"({"path":")" + path("out") +
                                                             R"(","mode":")" + mode + "\"}");
                   },
                   {errorAnswer("invalid path or mode")},
                   [](bool told) { EXPECT_EQ(fileHandleTable.size(), told ? 1U : 0U); }});
    }
}

TEST_F(CommandWithoutMemory, OpenFileStaysOpenWhateverIsDoneWithIt) {
    struct Use {
        const char* command;
        const char* mode;
        const char* arguments;
        std::vector<std::string> failures = {};
    };
    const std::array uses{
        Use{"guest-file-read", "r", R"("count":5)", {errorAnswer("fread error 12")}},
        Use{"guest-file-read", "r", R"("count":100000)", {errorAnswer("fread error 12")}},
        Use{"guest-file-read", "w", R"("count":5)"},
        Use{"guest-file-write", "w", R"("buf-b64":"aGVsbG8=")", {errorAnswer("fwrite error 12")}},
        Use{"guest-file-write", "w", R"("buf-b64":"aGVsbG8")"},
        Use{"guest-file-write", "r", R"("buf-b64":"aGVsbG8=")"},
        Use{"guest-file-seek", "r", R"("offset":3,"whence":"set")"},
        Use{"guest-file-seek", "r", R"("offset":-3,"whence":"set")"},
        Use{"guest-file-flush", "w", R"("x":1)"},
        Use{"mirel-guest-file-vsock-read", "r", R"("cid":2,"port":1,"buffer-size":-1)"},
    };
    for (const Use& use : uses) {
        expectConsistency(std::string(use.command) + " " + use.arguments,
                          {[this, &use] {
                               // What is read is there, whatever an earlier attempt has done.
                               const bool reads = std::string(use.mode) == "r";
                               const std::string name = path(reads ? "file" : "out");
                               return request(use.command, R"({"handle":)" +
                                                               openFile(name, use.mode) + "," +
                                                               use.arguments + "}");
                           },
                           use.failures, [](bool) { EXPECT_EQ(fileHandleTable.size(), 1U); }});
    }
}

TEST_F(CommandWithoutMemory, FileIsClosedOrStillOpen) {
    expectConsistency(
        "close", {[this] {
                      const std::string handle = openFile(path("out"), "w");
                      answerTo(request("guest-file-write",
                                       R"({"handle":)" + handle + R"(,"buf-b64":"aGVsbG8="})"));
                      return request("guest-file-close", R"({"handle":)" + handle + "}");
                  },
                  {},
                  [](bool told) { EXPECT_EQ(fileHandleTable.empty(), told); }});
    expectConsistency("close that fails", {[this] {
                          const std::string handle = openFile("/dev/full", "w");
                          answerTo(request("guest-file-write",
                                           R"({"handle":)" + handle + R"(,"buf-b64":"aGVsbG8="})"));
                          return request("guest-file-close", R"({"handle":)" + handle + "}");
                      }});
}

TEST_F(CommandWithoutMemory, TransferLeavesTheFileOpenAndNoSocket) {
    const auto transfer = [this](const std::string& command, const std::string& mode) {
        return [this, command, mode] {
            const std::string handle =
                openFile(path(command.ends_with("read") ? "file" : "out"), mode);
            std::array<int, 2> ends{};
            EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
            EXPECT_EQ(::write(ends[1], "hello", 5), 5);
            ::shutdown(ends[1], SHUT_WR);
            fakes_.vsockSockets.nextSocket = DescriptorGuard(ends[0]);
            fakes_.vsockSockets.hostEnds.emplace_back(ends[1]);
            return request(command, R"({"handle":)" + handle + R"(,"cid":2,"port":1234})");
        };
    };
    for (const auto& [command, mode] : {std::pair{"mirel-guest-file-vsock-read", "r"},
                                        std::pair{"mirel-guest-file-vsock-write", "w"}}) {
        expectConsistency(command, {transfer(command, mode),
                                    {errorAnswer("failed to allocate buffer")},
                                    [](bool) { EXPECT_EQ(fileHandleTable.size(), 1U); }});
    }
}

TEST_F(CommandWithoutMemory, ClockPowerAndRemoteLoginAreSwitchedWhenThatIsTold) {
    expectConsistency("clock",
                      {[this] {
                           fakes_.clock.now = std::timespec{};
                           return request("guest-set-time", R"({"time":5000000000})");
                       },
                       {},
                       [this](bool told) { EXPECT_EQ(fakes_.clock.now->tv_sec, told ? 5 : 0); }});
    expectConsistency("clock that cannot be set", {[this] {
                          fakes_.clock.accepts = false;
                          return request("guest-set-time", R"({"time":1})");
                      }});
    expectConsistency(
        "remote login",
        {[] { return request("mirel-guest-set-remote-login", R"({"enabled":true})"); },
         {},
         [this](bool told) { EXPECT_EQ(fakes_.remoteLogin.switched.size(), told ? 1U : 0U); }});
    expectConsistency("remote login that is refused", {[this] {
                          fakes_.remoteLogin.authorises = false;
                          return request("mirel-guest-set-remote-login", "{}");
                      }});
    for (const char* mode : {"powerdown", "reboot"}) {
        std::size_t before = 0;
        const auto orders = [this] { return fakes_.powerControl.performed().size(); };
        expectConsistency(
            mode,
            {[&before, &orders, mode] {
                 before = orders();
                 return request("guest-shutdown", R"({"mode":")" + std::string(mode) + "\"}");
             },
             {},
             [&before, &orders](bool told) { EXPECT_EQ(orders() - before, told ? 1U : 0U); }});
    }
    fakes_.powerControl.accepts = false;
    expectConsistency("shutdown that is refused", {[] { return request("guest-shutdown", "{}"); }});
}

TEST_F(CommandWithoutMemory, NameThatIsNoStringEndsTheAgentWithItsStatusNonetheless) {
    device_.pieces = {"{\"execute\":5}\n"};
    constexpr int notReached = 3;
    int status = 0;
    int ends = 0;
    for (long allocation = 0; status != notReached; ++allocation) {
        status = exitStatusOf([this, allocation] {
            device_.next = 0;
            std::atexit([] {
                if (stopFailingAllocations() != 0) {
                    ::_exit(notReached);
                }
            });
            ReadLoop loop;
            failAllocations(allocation, 1);
            try {
                loop.run();
            } catch (const std::out_of_range&) {
                // There is no further piece: the request was answered instead.
            }
        });
        ends += status == EXIT_FAILURE ? 1 : 0;
        EXPECT_TRUE(status == EXIT_FAILURE || status == notReached) << allocation << ": " << status;
    }
    EXPECT_GT(ends, 3);
}

}  // namespace
}  // namespace corvane
