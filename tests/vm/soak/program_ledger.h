#pragma once

#include <sys/types.h>

#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <string>

#include "tests/vm/soak/dice.h"
#include "tests/vm/support/exec_client.h"

namespace corvane::vm {

/// How far a request has come when its host vanishes.
enum class Delivery {
    cutOff,     ///< not all of it was sent: nothing may come of it
    atOnce,     ///< sent whole, and the host left at once: the channel may have lost it
    unawaited,  ///< sent whole behind one that the host saw answered: may be lost, too
    certain,    ///< answered, or the channel loses nothing: it must be carried out
};

/// A program that has been asked for, and how it must end. It leaves a mark of its start: a file
/// with its number as the name and its process id in it.
struct SoakProgram {
    unsigned number = 0;
    ExecClient::Arguments arguments;  ///< of guest-exec
    pid_t pid = -1;
    std::optional<std::int64_t> exitCode = {};
    std::optional<std::int64_t> signal = {};
    std::optional<std::string> output = {};  ///< where it is captured
    bool mayHangUp = false;                  ///< its terminal, which may end it sooner
    bool sleeps = false;                     ///< until a signal ends it
    Delivery delivery = Delivery::cutOff;    ///< where the host has vanished
};

/// Random programs, and the books about their ends.
class ProgramLedger {
 public:
    /// The marks, and the files "in" and "out" that are streams, are in `directory`, which every
    /// user may write to. Some programs run as `user`.
    ProgramLedger(std::string directory, std::string user, Dice& dice)
        : directory_(std::move(directory)), user_(std::move(user)), dice_(dice) {}

    /// One of any kind. Those that sleep and those that cannot be started only for hosts that stay.
    SoakProgram make(bool hostStays);
    /// A shell command, the mark before it, that ends with `exitCode`.
    SoakProgram make(const std::string& command, int exitCode);

    /// Throws std::runtime_error when this is not the program's end, as it must be. It must have
    /// one.
    void takeEnd(const SoakProgram& program, const ProgramState& end);

    /// Notes whether the program of a vanished host has started. Throws std::runtime_error when
    /// that is not as its request was delivered.
    void takeStart(const SoakProgram& program, bool hasStarted);
    /// Throws std::runtime_error when so many whole requests of vanished hosts were lost that the
    /// channel alone cannot have been the cause.
    void checkLosses() const;
    /// What has come of the requests of vanished hosts, a line each.
    [[nodiscard]] std::string startsOfVanished() const;

    /// Whose process ids are known, and who have not been seen to end.
    std::deque<SoakProgram> running;
    /// Those that hosts have asked for who vanished before the answer.
    std::deque<SoakProgram> unseen;

    std::size_t started = 0;   ///< all that have
    std::size_t ends = 0;      ///< reported, each once
    std::size_t adopted = 0;   ///< of those, started by a host that never got the pid
    std::size_t lostEnds = 0;  ///< reported to a host that had vanished

 private:
    struct Starts {
        std::size_t askedFor = 0;
        std::size_t made = 0;
    };

    [[nodiscard]] std::string mark(unsigned number) const;
    void choose(SoakProgram& program, std::size_t kind);

    std::string directory_;
    std::string user_;
    Dice& dice_;
    unsigned lastNumber_ = 0;
    std::map<Delivery, Starts> startsOfVanished_;
};

}  // namespace corvane::vm
