#include "tests/vm/soak/soak_load.h"

#include <signal.h>

#include <algorithm>
#include <array>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "tests/vm/soak/questions.h"
#include "tests/vm/support/checksum.h"
#include "tests/vm/support/wire_terminal.h"

namespace corvane::vm {
namespace {

/// Programs come to their ends before so many more are started: their process ids must not come
/// again while a vanished host's are not known.
constexpr std::size_t programsUntilSettling = 150;

}  // namespace

SoakLoad::SoakLoad(SoakTarget& target, std::uint64_t seed)
    : target_(target),
      dice_(seed),
      directory_(target.shell("mktemp -d")),
      ledger_(directory_, target.user(), dice_) {
    target_.shell("chmod 755 " + directory_ + "; cd " + directory_ +
                  " && mkdir -m 1777 started && : >in && : >out");
    connect();
    knownBytes_ = dice_.bytes(100'000);
    files_->store(path("in"), knownBytes_, 50'000);
}

SoakLoad::~SoakLoad() {
    try {
        disconnect();
        target_.shell("rm -rf " + directory_);
    } catch (const std::exception&) {
        // A load that has failed may have nobody to talk to any more.
    }
}

void SoakLoad::run(std::chrono::seconds span) {
    constexpr std::chrono::minutes betweenNews{5};
    const auto start = std::chrono::steady_clock::now();
    auto news = start + betweenNews;
    for (auto now = start; now < start + span; now = std::chrono::steady_clock::now()) {
        step();
        if (now > news) {
            settle();
            std::cout << "after "
                      << std::chrono::duration_cast<std::chrono::seconds>(now - start).count()
                      << " s " << ledger_.started << " programs" << std::endl;
            news += betweenNews;
        }
        if (unsettled_ >= programsUntilSettling) {
            settle();
        }
    }
    settle();
}

void SoakLoad::step() {
    using Action = void (SoakLoad::*)();
    struct Choice {
        const char* name;
        std::size_t weight;
        Action action;
        bool needsPeer = false;  ///< at the vsock
    };
    static const std::array choices{
        Choice{"questions", 6, &SoakLoad::askQuestions},
        Choice{"starts", 6, &SoakLoad::startPrograms},
        Choice{"polls", 6, &SoakLoad::pollPrograms},
        Choice{"signals", 3, &SoakLoad::signalProgram},
        Choice{"programs on vsock", 2, &SoakLoad::useProgramOnVsock, true},
        Choice{"programs on terminals", 1, &SoakLoad::useProgramOnTerminal, true},
        Choice{"files written and read", 3, &SoakLoad::useFile},
        Choice{"files held open", 4, &SoakLoad::useHeldFile},
        Choice{"transfers", 2, &SoakLoad::transferFile, true},
        Choice{"clocks set", 1, &SoakLoad::setClock},
        Choice{"hosts that vanished", 12, &SoakLoad::vanish},
        Choice{"hosts that vanished during a transfer", 1, &SoakLoad::vanishDuringTransfer, true},
        Choice{"hosts that came and went", 2, &SoakLoad::comeAndGo},
    };
    const auto weightOf = [this](const Choice& choice) {
        return choice.needsPeer && target_.vsockPeer() == nullptr ? 0 : choice.weight;
    };
    std::size_t sum = 0;
    for (const Choice& choice : choices) {
        sum += weightOf(choice);
    }
    std::size_t drawn = dice_.below(sum);
    for (const Choice& choice : choices) {
        const std::size_t weight = weightOf(choice);
        if (drawn < weight) {
            record_.note(choice.name);
            (this->*choice.action)();
            return;
        }
        drawn -= weight;
    }
}

void SoakLoad::connect() {
    host_ = std::make_unique<HostClient>(target_.connectHost());
    host_->recordIn(record_);
    exec_ = std::make_unique<ExecClient>(*host_);
    files_ = std::make_unique<FileClient>(*host_);
    host_->synchronise();
    ++counts_["connections"];
}

void SoakLoad::disconnect() {
    record_.note("the host vanishes");
    host_->disconnect();
}

// --- hosts that stay ----------------------------------------------------------------------------

void SoakLoad::askQuestions() {
    std::vector<Question> questions;
    std::string lines;
    for (std::size_t count = dice_.between(1, 12); count > 0; --count) {
        questions.push_back(randomQuestion(dice_));
        lines += questions.back().line + '\n';
        // Empty lines and what is dropped have no answer.
        if (dice_.oneIn(4)) {
            lines += dice_.oneIn(2) ? "\n" : "{\"execute\":\"dropped\"\xFF";
        }
    }
    host_->sendWhileReceiving(lines);
    for (const Question& question : questions) {
        const std::string answer = host_->receiveLine();
        expect(answer.starts_with(question.answer), "not '" + question.answer + "' to '" +
                                                        question.line.substr(0, 500) + "' but " +
                                                        answer.substr(0, 500));
    }
    counts_["questions and answers"] += questions.size();
}

void SoakLoad::startPrograms() {
    std::vector<SoakProgram> programs;
    std::vector<ExecClient::Arguments> requests;
    for (std::size_t count = dice_.between(1, 8); count > 0; --count) {
        programs.push_back(ledger_.make(true));
        requests.push_back(programs.back().arguments);
    }
    const std::vector<pid_t> pids = exec_->startAll(requests);
    for (std::size_t index = 0; index < pids.size(); ++index) {
        programs[index].pid = pids[index];
        ledger_.running.push_back(std::move(programs[index]));
    }
    ledger_.started += pids.size();
    unsettled_ += pids.size();
    counts_["starts answered"] += pids.size();
}

void SoakLoad::pollPrograms() {
    for (std::size_t count = dice_.between(1, 10); count > 0 && !ledger_.running.empty(); --count) {
        takeEndIfEnded(dice_.below(ledger_.running.size()));
    }
}

bool SoakLoad::takeEndIfEnded(std::size_t index) {
    const SoakProgram& program = ledger_.running[index];
    const ProgramState state = exec_->poll(program.pid);
    ++counts_["polls"];
    if (!state.exited) {
        return false;
    }
    ledger_.takeEnd(program, state);
    if (dice_.oneIn(4)) {
        const std::string refusal = exec_->refusalOf("guest-exec-status", {{"pid", program.pid}});
        expect(refusal == "invalid PID", "the end is told twice");
    }
    ledger_.running.erase(ledger_.running.begin() + static_cast<std::ptrdiff_t>(index));
    return true;
}

void SoakLoad::signalProgram() {
    const auto sleeping = std::ranges::find_if(ledger_.running, &SoakProgram::sleeps);
    if (sleeping == ledger_.running.end()) {
        return;
    }
    constexpr std::array ending{SIGKILL, SIGTERM, SIGHUP, SIGUSR1};
    const int signal = ending[dice_.below(ending.size())];
    exec_->signal(sleeping->pid, signal);
    sleeping->signal = signal;
    sleeping->exitCode.reset();
    sleeping->sleeps = false;
    ++counts_["signals"];
}

void SoakLoad::useProgramOnVsock() {
    VsockPeer* const peer = target_.vsockPeer();
    const bool peerStays = !dice_.oneIn(3);
    SoakProgram program =
        ledger_.make(peerStays ? "cat" : "cat >/dev/null", static_cast<int>(dice_.below(250)));
    program.arguments["mirel-vsock-stdio"] = "vsock://2:" + std::to_string(peer->listen());
    program.pid = exec_->start(program.arguments);
    ++ledger_.started;
    ++unsettled_;
    peer->awaitConnection();
    const std::string bytes = dice_.bytes(dice_.below(100'000));
    peer->send(bytes);
    if (peerStays) {
        peer->finishSending();
        expect(peer->receiveAll() == bytes, "other bytes come back");
    } else {
        peer->close();
    }
    ledger_.running.push_back(std::move(program));
    ++counts_["programs on vsock"];
}

void SoakLoad::useProgramOnTerminal() {
    VsockPeer* const peer = target_.vsockPeer();
    SoakProgram program =
        ledger_.make("stty size; read -r line", static_cast<int>(dice_.below(250)));
    program.arguments["mirel-vsock-stdio"] = "vsock://2:" + std::to_string(peer->listen());
    program.arguments["mirel-termios"] = cookedTerminal.record();
    program.arguments["mirel-window-size"] = {{"rows", 30}, {"columns", 100}};
    program.pid = exec_->start(program.arguments);
    ++ledger_.started;
    ++unsettled_;
    peer->awaitConnection();
    peer->await("30 100");
    if (dice_.oneIn(3)) {
        // The relay ends, and the terminal hangs up. The program may read that before it is told.
        peer->close();
        program.mayHangUp = true;
    } else {
        // Until the program has ended, the host's departure would still end it.
        peer->send("go\n");
        peer->receiveAll();
    }
    ledger_.running.push_back(std::move(program));
    ++counts_["programs on terminals"];
}

void SoakLoad::useFile() {
    const std::string name = path("file");
    std::string bytes;
    const Handle handle = files_->open(name, "w+");
    for (std::size_t count = dice_.between(1, 4); count > 0; --count) {
        const std::string piece = dice_.bytes(dice_.below(20'000));
        expect(files_->write(handle, piece).count == piece.size(), "not all was written");
        bytes += piece;
        if (dice_.oneIn(2)) {
            files_->flush(handle);
        }
    }
    const std::size_t place = dice_.below(bytes.size() + 1);
    expect(files_->seek(handle, static_cast<std::int64_t>(place), "set").position == place,
           "another position");
    const std::size_t count = dice_.between(1, 70'000);
    expect(files_->read(handle, count).bytes == bytes.substr(place, count), "other bytes are read");
    files_->close(handle);
    ++counts_["opens"];
    ++counts_["files written and read"];
}

void SoakLoad::useHeldFile() {
    constexpr std::size_t most = 16;
    if (held_.size() < most && (held_.empty() || dice_.oneIn(2))) {
        held_.push_back(files_->open(path("in"), dice_.oneIn(2) ? "r" : "r+"));
        ++counts_["opens"];
        return;
    }
    const std::size_t index = dice_.below(held_.size());
    const std::size_t place = dice_.below(knownBytes_.size());
    const std::size_t count = dice_.between(1, 120'000);
    files_->seek(held_[index], static_cast<std::int64_t>(place), "set");
    const FileClient::Piece piece = files_->read(held_[index], count);
    expect(piece.bytes == knownBytes_.substr(place, count), "other bytes are read");
    expect(piece.eof == (place + count > knownBytes_.size()), "another end of the file");
    ++counts_["reads of files held open"];
    if (dice_.oneIn(3)) {
        files_->close(held_[index]);
        held_.erase(held_.begin() + static_cast<std::ptrdiff_t>(index));
    }
}

void SoakLoad::transferFile() {
    VsockPeer* const peer = target_.vsockPeer();
    const FileClient::Arguments size =
        dice_.oneIn(2) ? FileClient::Arguments{} : FileClient::Arguments{{"buffer-size", 5000}};
    if (dice_.oneIn(2)) {
        const Handle handle = files_->open(path("in"));
        files_->startTransfer(Direction::read, handle, peer->listen(), size);
        peer->awaitConnection();
        expect(peer->receiveAll() == knownBytes_, "other bytes are received");
        expect(files_->awaitTransfer().count == knownBytes_.size(), "not all was transferred");
        files_->close(handle);
    } else {
        const std::string bytes = dice_.bytes(dice_.below(150'000));
        const Handle handle = files_->open(path("file"), "w");
        files_->startTransfer(Direction::write, handle, peer->listen(), size);
        peer->awaitConnection();
        peer->send(bytes);
        peer->finishSending();
        expect(files_->awaitTransfer().count == bytes.size(), "not all was transferred");
        files_->close(handle);
        expect(files_->fetch(path("file"), 60'000) == bytes, "other bytes were written");
        ++counts_["opens"];
    }
    ++counts_["opens"];
    ++counts_["transfers"];
}

void SoakLoad::setClock() {
    const auto now = exec_->ask("guest-get-time", {}).at("time").to_number<std::uint64_t>();
    exec_->ask("guest-set-time", {{"time", now}});
    ++counts_["clocks set"];
}

// --- accounts -----------------------------------------------------------------------------------

void SoakLoad::settle() {
    record_.note("coming to rest");
    while (std::ranges::find_if(ledger_.running, &SoakProgram::sleeps) != ledger_.running.end()) {
        signalProgram();
    }
    std::vector<pid_t> pids;
    for (const SoakProgram& program : ledger_.running) {
        pids.push_back(program.pid);
    }
    const std::vector<ProgramState> states = exec_->awaitAll(pids);
    for (std::size_t index = 0; index < states.size(); ++index) {
        ledger_.takeEnd(ledger_.running[index], states[index]);
    }
    ledger_.running.clear();
    adoptUnseen();
    expect(ledger_.started == ledger_.ends + ledger_.lostEnds, "not each program's end was told");
    for (const Handle handle : std::exchange(held_, {})) {
        files_->close(handle);
    }
    unsettled_ = 0;
    ++counts_["times at rest"];
}

/// Who has started without the host's getting the process id has left it in a file.
void SoakLoad::adoptUnseen() {
    const auto deadline = std::chrono::steady_clock::now() + hangLimit;
    while (target_.shell("cat /proc/$agent/task/*/children | wc -w") != "0") {
        expect(std::chrono::steady_clock::now() < deadline, "the agent keeps children");
    }
    std::istringstream marks(
        target_.shell("cd " + path("started") + " && { grep -H . * 2>/dev/null; rm -f *; }"));
    std::map<unsigned, pid_t> pids;
    for (std::string line; std::getline(marks, line);) {
        std::istringstream mark(line);
        unsigned number = 0;
        pid_t pid = 0;
        // A program that was ended before it had written its own has left an empty one: its host
        // knows it.
        char colon = 0;
        if (mark >> number >> colon >> pid) {
            pids[number] = pid;
        }
    }
    for (SoakProgram& program : std::exchange(ledger_.unseen, {})) {
        const auto found = pids.find(program.number);
        ledger_.takeStart(program, found != pids.end());
        if (found != pids.end()) {
            program.pid = found->second;
            ledger_.takeEnd(program, exec_->poll(program.pid));
        }
    }
    ledger_.checkLosses();
    expect(target_.shell("ls " + target_.captureDirectory() + " 2>/dev/null | wc -l") == "0",
           "there are capture files of nobody");
}

void SoakLoad::expect(bool truth, const std::string& what) const {
    if (!truth) {
        throw std::runtime_error(what);
    }
}

void SoakLoad::askAfterEveryProcess() {
    constexpr long together = 500;
    constexpr long most = 100'000;
    const long end = std::min(std::stol(target_.shell("cat /proc/sys/kernel/pid_max")), most);
    for (long first = 1; first < end; first += together) {
        std::vector<FileClient::Arguments> requests;
        for (long pid = first; pid < std::min(first + together, end); ++pid) {
            requests.push_back({{"pid", pid}});
        }
        files_->askAll("guest-exec-status", requests);
    }
}

std::string SoakLoad::figures() const {
    std::ostringstream text;
    text << "programs started: " << ledger_.started << "\nends told once: " << ledger_.ends
         << "\n  of those, of programs whose host vanished before the answer: " << ledger_.adopted
         << "\nends told to a host that had vanished: " << ledger_.lostEnds << '\n'
         << ledger_.startsOfVanished();
    for (const auto& [name, count] : counts_) {
        text << name << ": " << count << '\n';
    }
    return text.str();
}

}  // namespace corvane::vm
