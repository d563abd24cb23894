// Hosts that do not stay: what they send before they vanish, and what may have come of it.

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <boost/json/serialize.hpp>

#include "tests/vm/soak/questions.h"
#include "tests/vm/soak/soak_load.h"

namespace corvane::vm {
namespace {

/// Six answers of so many bytes fit into a socket of the host's.
constexpr std::size_t littleUnread = 2000;

std::string requestLine(std::string_view command, const ExecClient::Arguments& arguments) {
    return boost::json::serialize(
        boost::json::object{{"execute", command}, {"arguments", arguments}});
}

}  // namespace

/// What a request of a vanished host may have done.
struct SoakLoad::Effect {
    enum class Kind { start, poll, close };
    Kind kind;
    std::size_t number;  ///< of the program, or the handle
    Delivery delivery = Delivery::cutOff;
};

/// What a host sends before it vanishes.
class SoakLoad::Stream {
 public:
    void addLine(const std::string& line) {
        bytes_ += line + '\n';
        lineEnds_.push_back(bytes_.size());
    }
    void addRequest(const std::string& line, const Effect& effect) {
        addLine(line);
        effects_.emplace_back(bytes_.size(), effect);
    }
    /// Drops whatever is unfinished before it.
    void addGarbage(const std::string& bytes) { bytes_ += bytes + '\xFF'; }

    void cut(std::size_t length) {
        bytes_.resize(length);
        std::erase_if(lineEnds_, [length](std::size_t end) { return end > length; });
    }

    [[nodiscard]] const std::string& bytes() const { return bytes_; }
    [[nodiscard]] bool getsAnAnswer() const { return !lineEnds_.empty(); }
    /// All that were meant to be, and how each was delivered to an agent that has given these
    /// `answers` before the host left.
    [[nodiscard]] std::vector<Effect> effects(std::string_view answers,
                                              bool channelLosesNothing) const {
        const std::size_t taken = takenBefore(std::ranges::count(answers, '\n'));
        std::vector<Effect> all;
        for (auto [end, effect] : effects_) {
            if (end > bytes_.size()) {
                effect.delivery = Delivery::cutOff;
            } else if (channelLosesNothing || end <= taken) {
                effect.delivery = Delivery::certain;
            } else {
                effect.delivery = answers.empty() ? Delivery::atOnce : Delivery::unawaited;
            }
            all.push_back(effect);
        }
        return all;
    }

 private:
    /// How many bytes the agent has had, at least, when it has given so many answers: not every
    /// line has one, but none has two.
    [[nodiscard]] std::size_t takenBefore(std::ptrdiff_t answers) const {
        std::size_t taken = 0;
        for (; answers > 0; --answers) {
            taken = bytes_.find('\n', taken) + 1;
        }
        return taken;
    }

    std::string bytes_;
    std::vector<std::size_t> lineEnds_;
    std::vector<std::pair<std::size_t, Effect>> effects_;
};

void SoakLoad::vanish() {
    const bool leavesUnread = target_.mayLeaveUnread();
    const bool leavesMuchUnread = leavesUnread && dice_.oneIn(8) && target_.mayLeaveMuchUnread();
    const auto isTooMuch = [leavesMuchUnread](const std::string& text) {
        return text.size() > littleUnread && !leavesMuchUnread;
    };
    Stream stream;
    for (std::size_t count = dice_.between(1, 6); count > 0; --count) {
        switch (dice_.below(8)) {
            case 0:
            case 1: {
                SoakProgram program = ledger_.make(false);
                stream.addRequest(requestLine("guest-exec", program.arguments),
                                  {Effect::Kind::start, program.number});
                ledger_.unseen.push_back(std::move(program));
                ++unsettled_;
                break;
            }
            case 2:
            case 3:
                if (!ledger_.running.empty()) {
                    const SoakProgram& program =
                        ledger_.running[dice_.below(ledger_.running.size())];
                    if (!isTooMuch(program.output.value_or(""))) {
                        stream.addRequest(requestLine("guest-exec-status", {{"pid", program.pid}}),
                                          {Effect::Kind::poll, program.number});
                    }
                }
                break;
            case 4:
                if (!held_.empty()) {
                    const Handle handle = held_[dice_.below(held_.size())];
                    if (dice_.oneIn(5)) {
                        stream.addRequest(requestLine("guest-file-close", {{"handle", handle}}),
                                          {Effect::Kind::close, handle});
                    } else {
                        stream.addLine(
                            requestLine("guest-file-seek",
                                        {{"handle", handle}, {"offset", 0}, {"whence", "set"}}));
                        stream.addLine(requestLine(
                            "guest-file-read",
                            {{"handle", handle},
                             {"count", leavesMuchUnread ? 50 * littleUnread : littleUnread}}));
                    }
                }
                break;
            case 5:
                stream.addGarbage(dice_.oneIn(2) ? dice_.bytes(dice_.below(50))
                                                 : R"({"execute":"guest-)");
                break;
            default:
                if (const std::string line = randomQuestion(dice_).line; !isTooMuch(line)) {
                    stream.addLine(line);
                }
        }
    }
    const std::size_t size = stream.bytes().size();
    switch (dice_.below(8)) {
        case 0:
        case 1:
            break;
        case 2:
            stream.cut(size == 0 ? 0 : size - 1);  // most often a line feed
            break;
        default:
            stream.cut(dice_.below(size + 1));
    }
    host_->sendWhileReceiving(stream.bytes());
    std::string answers;
    if (!leavesUnread) {
        host_->synchronise();
        host_->send(R"({"execute":"guest-ping"})");  // without its end
    } else if (stream.getsAnAnswer() && dice_.oneIn(2)) {
        answers = host_->receiveSome();
    }
    disconnect();
    ++counts_["hosts that vanished"];
    connect();
    resolve(stream.effects(answers, target_.channelLosesNothing()));
}

/// What can be known at once of what a vanished host has done.
void SoakLoad::resolve(const std::vector<Effect>& effects) {
    for (const Effect& effect : effects) {
        switch (effect.kind) {
            case Effect::Kind::start:
                std::ranges::find(ledger_.unseen, effect.number, &SoakProgram::number)->delivery =
                    effect.delivery;
                break;
            case Effect::Kind::close:
                resolveClose(effect);
                break;
            case Effect::Kind::poll:
                resolvePoll(effect);
                break;
        }
    }
}

void SoakLoad::resolveClose(const Effect& effect) {
    if (std::ranges::find(held_, effect.number) == held_.end()) {
        return;  // asked for twice
    }
    const std::string refusal = files_->refusalOf("guest-file-flush", {{"handle", effect.number}});
    if (refusal.empty()) {
        expect(effect.delivery != Delivery::certain, "a file is open that was closed");
        return;
    }
    expect(refusal == "handle is not a valid file", refusal);
    expect(effect.delivery != Delivery::cutOff, "a file is closed by part of a request");
    std::erase(held_, effect.number);
}

void SoakLoad::resolvePoll(const Effect& effect) {
    const auto program = std::ranges::find(ledger_.running, effect.number, &SoakProgram::number);
    if (program == ledger_.running.end()) {
        return;  // asked for twice
    }
    try {
        const ProgramState state = exec_->poll(program->pid);
        if (!state.exited) {
            return;
        }
        ledger_.takeEnd(*program, state);
    } catch (const RequestRefused& refused) {
        expect(std::string(refused.what()) == "invalid PID", refused.what());
        expect(effect.delivery != Delivery::cutOff, "part of a request has taken an end");
        ++ledger_.lostEnds;
    }
    ledger_.running.erase(program);
}

void SoakLoad::vanishDuringTransfer() {
    VsockPeer* const peer = target_.vsockPeer();
    const bool toHost = dice_.oneIn(2);
    const Handle handle = toHost ? files_->open("/dev/zero") : files_->open(path("file"), "w");
    files_->startTransfer(toHost ? Direction::read : Direction::write, handle, peer->listen());
    if (dice_.oneIn(2)) {
        peer->awaitConnection();
        if (toHost) {
            peer->receive(dice_.below(200'000));
        } else {
            peer->send(dice_.bytes(dice_.below(100'000)));
        }
    }
    disconnect();
    ++counts_["hosts that vanished during a transfer"];
    peer->close();
    connect();
    files_->close(handle);
    ++counts_["opens"];
}

void SoakLoad::comeAndGo() {
    disconnect();
    // Fewer than what makes QEMU lose notices of it.
    for (std::size_t count = dice_.between(1, 8); count > 0; --count) {
        HostClient guest = target_.connectHost();
        if (dice_.oneIn(2)) {
            guest.send(std::string(dice_.between(1, 5), '\xFF'));
        }
        guest.disconnect();
        ++counts_["connections"];
        ++counts_["hosts that came and went"];
    }
    connect();
}

}  // namespace corvane::vm
