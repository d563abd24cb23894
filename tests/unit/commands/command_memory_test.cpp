// Every command, with each allocation failing in turn that the request makes.

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <ctime>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "commands/exec/process_table.h"
#include "commands/files/file_handle_table.h"
#include "core/read_loop.h"
#include "tests/fakes/child_process.h"
#include "tests/fakes/failing_allocations.h"
#include "tests/unit/commands/command_memory_fixture.h"

namespace corvane {
namespace {

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
    for (const char* captured : {"false", "true"}) {
        std::string pid;
        expectConsistency(
            captured, {[this, &pid, captured] {
                           pid = endedProgram(
                               R"({"path":"/bin/echo","arg":["more than a string has room for"],)"
                               R"("capture-output":)" +
                               std::string(captured) + "}");
                           return request("guest-exec-status", R"({"pid":)" + pid + "}");
                       },
                       {R"({"return":{"exited":true,"out-data":"","err-data":"","exitcode":0}})"
                        "\n"},
                       [this, &pid](bool) {
                           const auto entry = processTable.find(std::stoi(pid));
                           const bool kept =
                               entry != processTable.end() && entry->second != nullptr;
                           EXPECT_EQ(kept, answer_.find("exited") == std::string::npos);
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

TEST_F(CommandWithoutMemory, TerminalIsResizedWhenThatIsTold) {
    const DescriptorGuard master(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_EQ(::grantpt(master.borrow()) | ::unlockpt(master.borrow()), 0);
    ++descriptors_;
    const std::string name = ::ptsname(master.borrow());
    fakes_.processInformation.inputs[::getpid()] = {name, name};
    std::string line =
        request("mirel-guest-signal-pid", R"({"signal":28,"pid":)" + std::to_string(::getpid()) +
                                              R"(,"mirel-window-size":{"rows":30,"columns":100}})");
    expectConsistency("resize", {[&line, &master] {
                                     const winsize none{};
                                     ::ioctl(master.borrow(), TIOCSWINSZ, &none);
                                     return line;
                                 },
                                 {},
                                 [&master](bool told) {
                                     winsize size{};
                                     ::ioctl(master.borrow(), TIOCGWINSZ, &size);
                                     EXPECT_EQ(size.ws_row, told ? 30 : 0);
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
