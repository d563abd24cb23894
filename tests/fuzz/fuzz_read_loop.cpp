// The read loop over a socketpair with writes of odd sizes and hosts that hang up: every line that
// is not empty gets one answer, in order, and every answer is well formed.

#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>

#include "commands/handshake/info.h"
#include "commands/handshake/ping.h"
#include "commands/handshake/sync.h"
#include "core/channel.h"
#include "core/command_table.h"
#include "core/message.h"
#include "core/read_loop.h"
#include "tests/fakes/fake_platform.h"
#include "tests/fuzz/check.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/fuzz/pending_model.h"

namespace corvane {
namespace {

namespace json = boost::json;

JsonValue handleEcho(const JsonObject* arguments) {
    return makeSuccessResponse(arguments != nullptr ? JsonValue(*arguments) : JsonValue());
}

/// The commands that change nothing, and one that gives back what it gets.
const std::array<Command, 5> commands = {{
    {"guest-sync", handleGuestSync, 1, ReportCondition::always},
    {"guest-sync-delimited", handleGuestSyncDelimited, 2, ReportCondition::always},
    {"guest-info", handleGuestInfo, 3, ReportCondition::always},
    {"guest-ping", handleGuestPing, 4, ReportCondition::always},
    {"echo", handleEcho, 5, ReportCondition::always},
}};

class Session {
 public:
    Session() {
        useCommandTable(commands);
        setDelimiterPending(false);
        openChannel();
        host_ = platform_.channelDevice.takeHostEnd();
    }

    ~Session() { platform_.channelDevice.closeChannel(channelDescriptor()); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// False when the request was one that ends the agent.
    bool send(std::string_view piece) {
        const ssize_t sent = ::send(host_.borrow(), piece.data(), piece.size(), 0);
        check(sent == static_cast<ssize_t>(piece.size()), "a piece fits the socket");
        model_.append(piece);
        std::size_t expected = 0;
        while (const auto line = model_.takeLine()) {
            expected += line->empty() ? 0U : 1U;
        }
        try {
            loop_.pass();
        } catch (const std::invalid_argument&) {
            return false;
        }
        const std::vector<std::string> answers = takeAnswers();
        check(answers.size() == expected, "each line that is not empty has one answer");
        for (const std::string& answer : answers) {
            checkAnswer(answer);
        }
        return true;
    }

    void reconnect() {
        host_.closeNow();
        loop_.pass();
        host_ = platform_.channelDevice.takeHostEnd();
    }

 private:
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

    static void checkAnswer(std::string_view answer) {
        if (answer.starts_with('\xFF')) {
            answer.remove_prefix(1);
        }
        json::error_code error;
        json::parse_options options;
        options.max_depth = 600;
        const json::value value = json::parse({answer.data(), answer.size()}, error, {}, options);
        check(!error && value.is_object() && value.as_object().size() == 1,
              "an answer is an object with one member");
        const auto& member = *value.as_object().begin();
        if (member.key() == "return") {
            return;
        }
        check(member.key() == "error" && member.value().is_object(), "it returns or is an error");
        const auto& fault = member.value().as_object();
        check(fault.size() == 2 && fault.contains("class") && fault.contains("desc"),
              "an error has a class and a description");
    }

    FakePlatform platform_;
    DescriptorGuard host_;
    ReadLoop loop_;
    PendingModel model_;
};

void run(FuzzInput input) {
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

}  // namespace
}  // namespace corvane

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    corvane::run(corvane::FuzzInput({data, size}));
    return 0;
}
