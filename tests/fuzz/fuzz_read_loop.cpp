// The read loop over a socketpair with writes of odd sizes and hosts that hang up, on the fake
// platform, with all handlers but those that start programs or signal them: every line that is not
// empty gets one answer, in order, every answer is well formed and says what can be told of it
// beforehand, the agent ends where it must and nowhere else, and no descriptor is left behind.
//
// A request can use a handle that an answer has named: the bytes 1, 2 and 3 are sent as the last
// three numbers that the agent has returned.

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <boost/json/value.hpp>

#include "commands/exec/exec_request.h"
#include "commands/exec/exec_status.h"
#include "commands/files/file_close.h"
#include "commands/files/file_flush.h"
#include "commands/files/file_open.h"
#include "commands/files/file_read.h"
#include "commands/files/file_seek.h"
#include "commands/files/file_write.h"
#include "commands/files/vsock_transfer.h"
#include "commands/handshake/info.h"
#include "commands/handshake/ping.h"
#include "commands/handshake/sync.h"
#include "commands/system/guest_time.h"
#include "commands/system/interface_report.h"
#include "commands/system/remote_login_switch.h"
#include "commands/system/shutdown.h"
#include "core/channel.h"
#include "core/command_table.h"
#include "core/message.h"
#include "core/read_loop.h"
#include "tests/fakes/descriptor_count.h"
#include "tests/fakes/fake_platform.h"
#include "tests/fakes/own_services.h"
#include "tests/fuzz/caught_standard_error.h"
#include "tests/fuzz/check.h"
#include "tests/fuzz/expected_answer.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/fuzz/memory_guest.h"
#include "tests/fuzz/pending_model.h"

namespace corvane {
namespace {

JsonValue handleEcho(const JsonObject* arguments) {
    return makeSuccessResponse(arguments != nullptr ? JsonValue(*arguments) : JsonValue());
}

/// The checks of "guest-exec" without what follows them.
JsonValue checkGuestExec(const JsonObject* arguments) {
    ExecRequest request;
    auto error = readExecRequest(arguments, request);
    return error ? *std::move(error) : makeSuccessResponse(JsonObject());
}

constexpr auto always = ReportCondition::always;

/// The agent's, in its order, but for "mirel-guest-signal-pid"; and one that gives back what it
/// gets.
const std::array<Command, 20> commands = {{
    {"guest-sync", handleGuestSync, 4, always},
    {"guest-sync-delimited", handleGuestSyncDelimited, 5, always},
    {"guest-info", handleGuestInfo, 3, always},
    {"guest-ping", handleGuestPing, 6, always},
    {"guest-exec", checkGuestExec, 1, always},
    {"guest-exec-status", handleGuestExecStatus, 2, always},
    {"guest-file-open", handleGuestFileOpen, 7, always},
    {"guest-file-close", handleGuestFileClose, 8, always},
    {"guest-file-read", handleGuestFileRead, 9, always},
    {"guest-file-write", handleGuestFileWrite, 10, always},
    {"mirel-guest-file-vsock-read", handleGuestFileVSockRead, 11, ReportCondition::ifVsock},
    {"mirel-guest-file-vsock-write", handleGuestFileVSockWrite, 12, ReportCondition::ifVsock},
    {"guest-file-seek", handleGuestFileSeek, 13, always},
    {"guest-file-flush", handleGuestFileFlush, 14, always},
    {"guest-network-get-interfaces", handleGuestNetworkGetInterfaces, 15, always},
    {"guest-shutdown", handleGuestShutdown, 16, always},
    {"guest-set-time", handleGuestSetTime, 18, always},
    {"guest-get-time", handleGuestGetTime, 19, always},
    {"mirel-guest-set-remote-login", handleGuestSetRemoteLogin, 17, ReportCondition::ifRemoteLogin},
    {"echo", handleEcho, 20, always},
}};

/// The fake platform, with the services of memory_guest.h in their fakes' places.
class Guest {
 public:
    Guest() {
        using Family = InterfaceAddress::Family;
        fakes_.networkInterfaces.entries = {
            {"eth0", true, Family::link, {2, 0, 0, 0, 0, 1}, {}},
            {"eth0", true, Family::ipv4, {192, 0, 2, 1}, {{255, 255, 255}}},
            {"eth0", true, Family::ipv6, {0xFE, 0x80}, {{0xFF, 0xFF}}}};
        fakes_.remoteLogin.available = true;
    }

    FakeChannelDevice& channelDevice() { return fakes_.channelDevice; }

 private:
    FakePlatform fakes_;
    MemoryFileStreams fileStreams_;
    MemoryVsockSockets vsockSockets_;
    SmallFiles smallFiles_;
    SeemingPrograms programs_;
    Platform services_ =
        platformWith({.vsockSockets = &vsockSockets_, .fileStreams = &fileStreams_});
    PlatformScope scope_{services_};
};

class Session {
 public:
    Session() {
        useCommandTable(commands);
        setDelimiterPending(false);
        openChannel();
        host_ = guest_.channelDevice().takeHostEnd();
    }

    ~Session() {
        guest_.channelDevice().closeChannel(channelDescriptor());
        closeAllFiles();
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// False when a request was one that ends the agent.
    bool send(std::string_view input) {
        const std::string piece = withNumbers(input);
        const ssize_t sent = ::send(host_.borrow(), piece.data(), piece.size(), 0);
        check(sent == static_cast<ssize_t>(piece.size()), "a piece fits the socket");
        model_.append(piece);
        const bool ended = passEndsAgent();
        const std::vector<std::string> answers = takeAnswers();
        auto answer = answers.begin();
        while (const auto line = model_.takeLine()) {
            if (line->empty()) {
                continue;
            }
            const ExpectedAnswer expected(*line, commands);
            if (expected.endsAgent()) {
                check(ended, "an 'execute' that is not a string ends the agent");
                check(answer == answers.end(), "it has answered what came before, and no more");
                return false;
            }
            check(answer != answers.end(), "each line that is not empty has an answer");
            noteReturned(expected.checkAnswer(*answer++));
        }
        check(answer == answers.end(), "and only one");
        check(!ended, "nothing else ends the agent");
        return true;
    }

    void reconnect() {
        host_.closeNow();
        loop_.pass();
        host_ = guest_.channelDevice().takeHostEnd();
    }

 private:
    /// What ends the agent leaves the loop as this exception; others are for the fuzzer.
    bool passEndsAgent() {
        try {
            loop_.pass();
            return false;
        } catch (const std::invalid_argument&) {
            return true;
        }
    }

    [[nodiscard]] std::vector<std::string> takeAnswers() const {
        std::vector<std::string> answers;
        std::string text;
        std::array<char, 65536> buffer;
        for (ssize_t count = 0;
             (count = ::recv(host_.borrow(), buffer.data(), buffer.size(), MSG_DONTWAIT)) > 0;) {
            text.append(buffer.data(), static_cast<std::size_t>(count));
        }
        for (std::size_t end = 0; (end = text.find('\n')) != std::string::npos;) {
            answers.push_back(text.substr(0, end));
            text.erase(0, end + 1);
        }
        check(text.empty(), "an answer ends with a line feed");
        return answers;
    }

    [[nodiscard]] std::string withNumbers(std::string_view input) const {
        std::string text;
        for (const char character : input) {
            const std::size_t place = static_cast<unsigned char>(character) - std::size_t{1};
            text += place < returned_.size() ? std::to_string(returned_[place])
                                             : std::string(1, character);
        }
        return text;
    }

    void noteReturned(const boost::json::value& result) {
        if (result.is_uint64() || result.is_int64()) {
            boost::json::error_code error;
            std::rotate(returned_.rbegin(), returned_.rbegin() + 1, returned_.rend());
            returned_.front() = result.to_number<std::uint64_t>(error);
        }
    }

    Guest guest_;
    DescriptorGuard host_;
    ReadLoop loop_;
    PendingModel model_;
    std::array<std::uint64_t, 3> returned_{};  ///< the last first
};

void serve(FuzzInput input) {
    const CaughtStandardError caught;
    Session session;
    for (std::string_view rest = input.text(); !rest.empty();) {
        if (input.next() % 32 == 0) {
            session.reconnect();
        }
        if (!session.send(input.takePiece(rest))) {
            return;
        }
    }
}

void run(FuzzInput input) {
    realStandardError();  // stays open for good
    const std::size_t descriptors = countDescriptors();
    serve(input);
    check(countDescriptors() == descriptors, "no descriptor is left behind");
}

}  // namespace
}  // namespace corvane

/// A buffer of any size can be asked for: what is large is not to be had, rather than an error.
/// See <sanitizer/asan_interface.h>.
extern "C" const char* __asan_default_options() {  // NOLINT: its name
    return "max_allocation_size_mb=64:allocator_may_return_null=1";
}

/// The C library keeps what it has looked up for a stream with a character set, and forgets it when
/// the stream is closed. See <sanitizer/lsan_interface.h>.
extern "C" const char* __lsan_default_suppressions() {  // NOLINT: its name
    return "leak:__gconv_lookup_cache\n";
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    corvane::run(corvane::FuzzInput({data, size}));
    return 0;
}
