#include "core/read_loop.h"

#include <sys/resource.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <new>

#include <gtest/gtest.h>

#include "core/channel.h"
#include "core/command_table.h"
#include "core/message.h"
#include "tests/fakes/agent_thread.h"
#include "tests/fakes/child_process.h"
#include "tests/fakes/fake_platform.h"
#include "tests/fakes/own_services.h"

namespace corvane {
namespace {

const char* const invalidJson = R"({"error":{"class":"GenericError","desc":"invalid JSON"}})";
const char* const pong = R"({"return":{}})";

JsonValue ping() {
    return makeSuccessResponse(JsonObject());
}

JsonValue pingDelimited() {
    setDelimiterPending(true);
    return ping();
}

JsonValue forgetDelimiter() {
    setDelimiterPending(false);
    return ping();
}

JsonValue throwSomethingElse() {
    throw 5;
}  // NOLINT: what no handler should do

JsonValue echo(const JsonObject* arguments) {
    return makeSuccessResponse(*arguments->find("text"));
}

constexpr Command commands[] = {
    {"guest-ping", ping, 1, ReportCondition::always},
    {"ping-delimited", pingDelimited, 2, ReportCondition::always},
    {"forget-delimiter", forgetDelimiter, 3, ReportCondition::always},
    {"throw", throwSomethingElse, 4, ReportCondition::always},
    {"echo", echo, 5, ReportCondition::always},
};

const std::string pingLine = R"({"execute":"guest-ping"})"
                             "\n";

class ReadLoopOnASocket : public testing::Test {
 protected:
    void SetUp() override { useCommandTable(commands); }

    /// True when the agent has answered nothing up to its answer to a ping that is sent now.
    bool nothingButAPongComes() { return agent_.request(R"({"execute":"guest-ping"})") == pong; }

    [[nodiscard]] std::size_t countOfStatus(const std::string& entry) const {
        const auto entries = platform_.systemLog.status();
        return static_cast<std::size_t>(std::count(entries.begin(), entries.end(), entry));
    }

    [[nodiscard]] std::ptrdiff_t countOfCalls(const char* call) const {
        const auto calls = platform_.channelDevice.calls();
        return std::count(calls.begin(), calls.end(), call);
    }

    FakePlatform platform_;
    AgentThread agent_{platform_};
};

TEST_F(ReadLoopOnASocket, AnswersARequestWithOneLine) {
    agent_.send(pingLine);
    std::array<char, 64> buffer{};
    const std::string expected = std::string(pong) + "\n";
    std::string received;
    while (received.size() < expected.size()) {
        const ssize_t count = ::read(agent_.hostEnd(), buffer.data(), buffer.size());
        ASSERT_GT(count, 0);
        received.append(buffer.data(), static_cast<std::size_t>(count));
    }
    EXPECT_EQ(received, expected);
}

TEST_F(ReadLoopOnASocket, AnswersTwoRequestsOfOneReadInOrder) {
    agent_.send(pingLine + R"({"execute":"other"})" + "\n");
    EXPECT_EQ(agent_.receiveLine(), pong);
    EXPECT_EQ(agent_.receiveLine(),
              R"({"error":{"class":"CommandNotFound","desc":"Invalid command 'other'"}})");
}

TEST_F(ReadLoopOnASocket, AnswersARequestThatIsSplitAtAnyByteOnce) {
    for (std::size_t cut = 1; cut < pingLine.size(); ++cut) {
        agent_.send(pingLine.substr(0, cut));
        agent_.send(pingLine.substr(cut));
        ASSERT_EQ(agent_.receiveLine(), pong) << cut;
    }
    EXPECT_TRUE(nothingButAPongComes());
}

TEST_F(ReadLoopOnASocket, DoesNotAnswerInputWithoutALineFeed) {
    agent_.send(R"({"execute":"guest-ping"})");
    agent_.send("\xFF");
    EXPECT_TRUE(nothingButAPongComes());
}

TEST_F(ReadLoopOnASocket, DropsEmptyLinesSilently) {
    agent_.send("\n\n\n");
    EXPECT_TRUE(nothingButAPongComes());
}

TEST_F(ReadLoopOnASocket, LineOfWhiteSpaceIsInvalidJson) {
    EXPECT_EQ(agent_.request(" "), invalidJson);
    EXPECT_EQ(agent_.request("\r"), invalidJson);
}

TEST_F(ReadLoopOnASocket, CarriageReturnBeforeTheLineFeedIsWhiteSpace) {
    EXPECT_EQ(agent_.request("{\"execute\":\"guest-ping\"}\r"), pong);
}

TEST_F(ReadLoopOnASocket, ResetMarkerDiscardsWhatCameBeforeIt) {
    agent_.send("garbage\xFF" + pingLine);
    EXPECT_EQ(agent_.receiveLine(), pong);
    EXPECT_TRUE(nothingButAPongComes());
}

TEST_F(ReadLoopOnASocket, ResetMarkerDiscardsWhatCameInEarlierReads) {
    agent_.send("{\"execute\":");
    agent_.send("\"gar");
    agent_.send("bage\xFF\xFF");
    EXPECT_TRUE(nothingButAPongComes());
}

TEST_F(ReadLoopOnASocket, LinesBeforeTheResetMarkerAreAnswered) {
    agent_.send(pingLine + "garbage\xFF" + pingLine);
    EXPECT_EQ(agent_.receiveLine(), pong);
    EXPECT_EQ(agent_.receiveLine(), pong);
}

TEST_F(ReadLoopOnASocket, TopLevelStringNumberBooleanAndNullAreInvalidJson) {
    EXPECT_EQ(agent_.request(R"("text")"), invalidJson);
    EXPECT_EQ(agent_.request("5"), invalidJson);
    EXPECT_EQ(agent_.request("true"), invalidJson);
    EXPECT_EQ(agent_.request("null"), invalidJson);
}

TEST_F(ReadLoopOnASocket, TopLevelArrayReachesTheDispatcher) {
    EXPECT_EQ(agent_.request("[1,2]"),
              R"({"error":{"class":"GenericError","desc":"request is not a dictionary"}})");
}

TEST_F(ReadLoopOnASocket, EachLineOfPrettyPrintedJsonIsInvalid) {
    agent_.send("{\n  \"execute\":\n  \"guest-ping\"\n}\n");
    for (int line = 0; line < 4; ++line) {
        EXPECT_EQ(agent_.receiveLine(), invalidJson);
    }
    EXPECT_TRUE(nothingButAPongComes());
}

TEST_F(ReadLoopOnASocket, InvalidJsonIsLoggedOncePerLineAndIsNoTransaction) {
    EXPECT_EQ(agent_.request("{nonsense}"), invalidJson);
    const auto entries = platform_.systemLog.status();
    ASSERT_EQ(entries.size(), 3U) << "two about the absent port, one about the line";
    EXPECT_EQ(entries[2].rfind("Cannot parse the request as JSON: ", 0), 0U) << entries[2];
    EXPECT_EQ(entries[2].back(), '\n');
    EXPECT_TRUE(platform_.systemLog.transactions().empty());
}

TEST_F(ReadLoopOnASocket, DelimiterPrecedesOneResponse) {
    EXPECT_EQ(agent_.request(R"({"execute":"ping-delimited"})"), std::string("\xFF") + pong);
    EXPECT_TRUE(nothingButAPongComes());
}

TEST_F(ReadLoopOnASocket, EachResponseIsOneWrite) {
    agent_.send(pingLine + pingLine + "[\n");
    for (int line = 0; line < 3; ++line) {
        static_cast<void>(agent_.receiveLine());
    }
    EXPECT_EQ(countOfCalls("send"), 3);
}

TEST_F(ReadLoopOnASocket, EndedChannelIsLoggedAndOpenedAfreshAndServed) {
    agent_.reconnect();
    EXPECT_EQ(countOfStatus("The connection has ended.\n"), 1U);
    EXPECT_TRUE(nothingButAPongComes());
    EXPECT_EQ(countOfCalls("open /dev/tty.org.qemu.guest_agent.0"), 2);
    EXPECT_EQ(countOfCalls("claim"), 2);
    EXPECT_EQ(countOfCalls("clear flags"), 2);
}

TEST_F(ReadLoopOnASocket, UnconsumedInputIsPutBeforeWhatTheNextHostSends) {
    agent_.send(R"({"execute":)");
    agent_.reconnect();
    agent_.send("\"guest-ping\"}\n");
    EXPECT_EQ(agent_.receiveLine(), pong);
}

TEST_F(ReadLoopOnASocket, NextHostDiscardsOldInputWithTheResetMarker) {
    agent_.send(R"({"execute":)");
    agent_.reconnect();
    agent_.send("\xFF" + pingLine);
    EXPECT_EQ(agent_.receiveLine(), pong);
}

TEST_F(ReadLoopOnASocket, LargeRequestsAndResponsesPass) {
    const std::string text(3 * 1024 * 1024, 'x');
    EXPECT_EQ(agent_.request(R"({"execute":"echo","arguments":{"text":")" + text + "\"}}"),
              R"({"return":")" + text + "\"}");
}

TEST_F(ReadLoopOnASocket, ManyLinesInOneReadAreAllAnswered) {
    std::string lines;
    for (int line = 0; line < 300; ++line) {
        lines += "[]\n";
    }
    agent_.send(lines);
    for (int line = 0; line < 300; ++line) {
        ASSERT_NE(agent_.receiveLine(), "");
    }
    EXPECT_TRUE(nothingButAPongComes());
}

/// What the loop, in a process of its own, leaves when it ends after `line`.
struct LoopEnd {
    int status;
    std::string log;
    std::string answer;
};

LoopEnd endOfLoopAfter(const std::string& line) {
    useCommandTable(commands);
    FakePlatform platform;
    openChannel();
    const DescriptorGuard host = platform.channelDevice.takeHostEnd();
    [[maybe_unused]] const ssize_t sent = ::write(host.borrow(), line.data(), line.size());
    platform.systemLog.recording = false;
    platform.systemLog.echoToStandardError = true;
    testing::internal::CaptureStderr();
    LoopEnd end{};
    end.status = exitStatusOf([] { ReadLoop().run(); });
    end.log = testing::internal::GetCapturedStderr();
    platform.channelDevice.closeChannel(channelDescriptor());
    std::array<char, 256> buffer{};
    const ssize_t count = ::read(host.borrow(), buffer.data(), buffer.size());
    end.answer.assign(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    return end;
}

TEST(ReadLoopEnd, ExecuteOfAnotherTypeEndsTheProcessWithStatusOneAndNoResponse) {
    const LoopEnd end = endOfLoopAfter("{\"execute\":5}\n" + pingLine);
    EXPECT_EQ(end.status, 1);
    EXPECT_EQ(end.log,
              "Unhandled exception: 'Error std::invalid_argument: 'execute' is not a string'\n");
    EXPECT_EQ(end.answer, "");
}

TEST(ReadLoopEnd, AnythingThrownEndsTheProcessWithStatusOneAndNoResponse) {
    const LoopEnd end = endOfLoopAfter("{\"execute\":\"throw\"}\n");
    EXPECT_EQ(end.status, 1);
    EXPECT_EQ(end.log, "Unhandled exception: 'Error int: no reason given'\n");
    EXPECT_EQ(end.answer, "");
}

TEST(ReadLoopEnd, LinesBeforeTheFatalOneAreAnswered) {
    const LoopEnd end = endOfLoopAfter(pingLine + "{\"execute\":null}\n");
    EXPECT_EQ(end.status, 1);
    EXPECT_EQ(end.answer, std::string(pong) + "\n");
}

/// A device whose reads are first `repeats` times the same, then come from a script, one entry
/// each; an empty one ends the channel.
class ScriptedChannelDevice : public ChannelDevice {
 public:
    SystemResult<DescriptorGuard> openSerial(const char* /*path*/) override {
        ++openings;
        return DescriptorGuard();
    }
    int claimExclusive(int /*descriptor*/) override { return 0; }
    int clearStatusFlags(int /*descriptor*/) override { return 0; }
    ssize_t receive(int /*descriptor*/, std::span<char> buffer, int patience) override {
        if (isSilent && patience != noLimit) {
            ++silences;
            errno = EAGAIN;
            return -1;
        }
        const std::string& bytes = position < repeats ? repeated : script.at(position - repeats);
        ++position;
        std::copy(bytes.begin(), bytes.end(), buffer.begin());
        return static_cast<ssize_t>(bytes.size());
    }
    void send(int /*descriptor*/, std::span<const std::string_view> pieces) noexcept override {
        for (const std::string_view piece : pieces) {
            sent += piece;
        }
    }
    void closeChannel(int /*descriptor*/) noexcept override {}

    std::string repeated;
    std::size_t repeats = 0;
    std::vector<std::string> script;
    std::size_t position = 0;
    bool isSilent = false;  ///< for longer than any limit
    int silences = 0;
    int openings = 0;
    std::string sent;
};

class ReadLoopOnAScript : public testing::Test {
 protected:
    void SetUp() override { useCommandTable(commands); }

    FakePlatform fakes_;
    ScriptedChannelDevice device_;
    Platform services_ = platformWith({.channelDevice = &device_});
    PlatformScope scope_{services_};
};

TEST_F(ReadLoopOnAScript, ChannelsThatKeepEndingAtOnceAreReopenedOnceASecond) {
    device_.script.assign(17, "");
    ReadLoop loop;
    const auto start = std::chrono::steady_clock::now();
    for (int end = 0; end < 17; ++end) {
        loop.pass();
    }
    EXPECT_EQ(device_.openings, 17);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

TEST_F(ReadLoopOnAScript, SilenceIsWaitedOutAndIsNoEndOfTheChannel) {
    device_.script = {pingLine, pingLine, pingLine};
    device_.isSilent = true;
    ReadLoop loop;
    for (int pass = 0; pass < 3; ++pass) {
        loop.pass();
    }
    EXPECT_EQ(device_.sent, std::string(pong) + "\n" + pong + "\n" + pong + "\n");
    EXPECT_EQ(device_.silences, 2);
    EXPECT_EQ(device_.openings, 0);
}

TEST_F(ReadLoopOnAScript, AnEndAfterARequestIsToldOnce) {
    device_.script = {pingLine, "", pingLine};
    ReadLoop loop;
    for (int pass = 0; pass < 3; ++pass) {
        loop.pass();
    }
    EXPECT_EQ(device_.sent, std::string(pong) + "\n" + pong + "\n");
    EXPECT_EQ(device_.openings, 1);
    EXPECT_EQ(device_.position, 3U);
}

TEST_F(ReadLoopOnAScript, PendingDelimiterSurvivesTheLossOfTheChannel) {
    device_.script = {"", pingLine, pingLine};
    setDelimiterPending(true);
    ReadLoop loop;
    for (int pass = 0; pass < 3; ++pass) {
        loop.pass();
    }
    EXPECT_EQ(device_.sent, "\xFF" + std::string(pong) + "\n" + pong + "\n");
}

/// In a child, because the limit on its address space can't be taken back.
TEST_F(ReadLoopOnAScript, LineThatMemoryCannotHoldIsAnsweredWithAnErrorAndTheNextIsServed) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "sanitizers need more address space than the test leaves";
#endif
    device_.repeated.assign(8192, 'x');
    device_.repeats = 64 * 1024;  // 512 MiB without a line feed
    device_.script = {"rest of the line\n" + pingLine};
    testing::internal::CaptureStderr();
    const int status = exitStatusOf([&] {
        const rlimit limit{384U << 20U, 384U << 20U};
        ::setrlimit(RLIMIT_AS, &limit);
        ReadLoop loop;
        while (device_.position <= device_.repeats) {
            loop.pass();
        }
        std::fputs(device_.sent.c_str(), stderr);
        ::_exit(0);
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              R"({"error":{"class":"GenericError","desc":"out of memory"}})"
              "\n" +
                  std::string(pong) + "\n");
}

}  // namespace
}  // namespace corvane
