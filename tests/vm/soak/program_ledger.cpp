#include "tests/vm/soak/program_ledger.h"

#include <signal.h>

#include <array>
#include <sstream>
#include <stdexcept>

#include "tests/vm/support/base64.h"

namespace corvane::vm {
namespace {

std::string shown(const std::optional<std::int64_t>& number) {
    return number ? std::to_string(*number) : "-";
}

}  // namespace

SoakProgram ProgramLedger::make(const std::string& command, int exitCode) {
    SoakProgram program;
    program.number = ++lastNumber_;
    program.exitCode = exitCode;
    program.arguments =
        shellCommand(mark(program.number) + command + "; exit " + std::to_string(exitCode));
    return program;
}

SoakProgram ProgramLedger::make(bool hostStays) {
    constexpr std::size_t kinds = 7;
    constexpr std::size_t kindsOfHostsThatStay = 2;
    const std::size_t kind = dice_.below(kinds + (hostStays ? kindsOfHostsThatStay : 0));
    SoakProgram program = make(":", static_cast<int>(dice_.below(250)));
    choose(program, kind);
    return program;
}

void ProgramLedger::choose(SoakProgram& program, std::size_t kind) {
    const std::string start = mark(program.number);
    const std::string end = "; exit " + shown(program.exitCode);
    const auto run = [&program](const std::string& text) {
        program.arguments = shellCommand(text);
    };
    switch (kind) {
        case 0:
            break;
        case 1:
            run(start + "printf out; printf error >&2" + end);
            program.arguments["capture-output"] = true;
            program.output = "out";
            break;
        case 2:
            program.output = dice_.bytes(dice_.below(6000));
            run(start + "cat" + end);
            program.arguments["capture-output"] = 1;
            program.arguments["input-data"] = encodeBase64(*program.output);
            break;
        case 3:
            // No core is written for any of these.
            program.signal = std::array{SIGHUP, SIGINT, SIGKILL, SIGUSR1, SIGTERM}[dice_.below(5)];
            program.exitCode.reset();
            run(start + "kill -" + shown(program.signal) + " $$");
            break;
        case 4:
            run(start + "cat; echo >&2" + end);
            program.arguments["mirel-stdin"] = directory_ + "/in";
            program.arguments["mirel-stdout"] = directory_ + "/out";
            program.arguments["mirel-stderr"] = "/dev/null";
            break;
        case 5:
            program.output = std::string(dice_.between(1, 200'000), '\0');
            run(start + "head -c " + std::to_string(program.output->size()) + " /dev/zero" + end);
            program.arguments["capture-output"] = true;
            break;
        case 6:
            run(start + "[ \"$X\" = 1 ] && [ \"$(pwd)\" = /tmp ] || exit 99" + end);
            program.arguments["env"] = {"X=1", "PATH=/usr/bin:/bin"};
            program.arguments["mirel-working-directory"] = "/tmp";
            program.arguments["mirel-user"] = user_;
            break;
        case 7:
            run(start + "exec sleep 1000");
            program.sleeps = true;
            break;
        default:
            program.arguments = {{"path", "/no/such/program"}};
            program.exitCode = 255;
            break;
    }
}

void ProgramLedger::takeEnd(const SoakProgram& program, const ProgramState& end) {
    const bool hungUp = program.mayHangUp && end.exited && end.signal == SIGHUP;
    const bool asItMustBe = end.exited && end.exitCode == program.exitCode &&
                            end.signal == program.signal && end.output == program.output;
    if (!asItMustBe && !hungUp) {
        std::ostringstream text;
        text << "program " << program.number << " (pid " << program.pid << "): exited "
             << end.exited << ", code " << shown(end.exitCode) << ", signal " << shown(end.signal)
             << ", " << end.output.value_or("").size() << " bytes; expected code "
             << shown(program.exitCode) << ", signal " << shown(program.signal) << ", "
             << program.output.value_or("").size() << " bytes: " << program.arguments;
        throw std::runtime_error(text.str().substr(0, 2000));
    }
    ++ends;
}

void ProgramLedger::takeStart(const SoakProgram& program, bool hasStarted) {
    Starts& starts = startsOfVanished_[program.delivery];
    ++starts.askedFor;
    if (hasStarted) {
        ++starts.made;
        ++started;
        ++adopted;
    }
    const bool mustNotStart = program.delivery == Delivery::cutOff;
    const bool mustStart = program.delivery == Delivery::certain;
    if (hasStarted ? mustNotStart : mustStart) {
        std::ostringstream text;
        text << "program " << program.number << " of a host that has vanished has "
             << (hasStarted ? "started, though its request was cut off: "
                            : "not started, though its request was delivered: ")
             << program.arguments;
        throw std::runtime_error(text.str().substr(0, 2000));
    }
}

void ProgramLedger::checkLosses() const {
    // Of fewer, chance alone could lose half.
    constexpr std::size_t enough = 20;
    const auto found = startsOfVanished_.find(Delivery::atOnce);
    if (found == startsOfVanished_.end() || found->second.askedFor < enough) {
        return;
    }
    // QEMU has lost up to 13 in 100.
    if (found->second.made * 2 < found->second.askedFor) {
        throw std::runtime_error("too few requests of vanished hosts are carried out:\n" +
                                 startsOfVanished());
    }
}

std::string ProgramLedger::startsOfVanished() const {
    static const std::map<Delivery, const char*> names{
        {Delivery::cutOff, "not sent whole"},
        {Delivery::atOnce, "sent whole by hosts that left at once"},
        {Delivery::unawaited, "sent whole behind one that was answered"},
        {Delivery::certain, "delivered for certain"},
    };
    std::ostringstream text;
    text << "starts that vanished hosts had asked for\n";
    for (const auto& [delivery, starts] : startsOfVanished_) {
        text << "  " << names.at(delivery) << ": " << starts.askedFor << ", of which "
             << starts.made << " were made\n";
    }
    return text.str();
}

std::string ProgramLedger::mark(unsigned number) const {
    return "echo $$ >" + directory_ + "/started/" + std::to_string(number) + "; ";
}

}  // namespace corvane::vm
