#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/vm/soak/dice.h"
#include "tests/vm/soak/program_ledger.h"
#include "tests/vm/soak/soak_target.h"
#include "tests/vm/support/file_client.h"

namespace corvane::vm {

/// Requests of all kinds in random order from hosts that come, go, and vanish at any byte. Every
/// answer is checked. Everything throws when something is not as it must be.
class SoakLoad {
 public:
    SoakLoad(SoakTarget& target, std::uint64_t seed);
    ~SoakLoad();
    SoakLoad(const SoakLoad&) = delete;
    SoakLoad& operator=(const SoakLoad&) = delete;

    /// Goes on for so long, and then comes to rest.
    void run(std::chrono::seconds span);
    /// Waits for all programs, collects their ends and looks for those of vanished hosts.
    void settle();
    /// Asks after every process id that there can be, each of which makes the agent remember it.
    /// Where there are very many, after the first 100,000.
    void askAfterEveryProcess();

    /// One line each.
    [[nodiscard]] std::string figures() const;
    [[nodiscard]] std::string lastTraffic() const { return record_.text(); }

 private:
    struct Effect;
    class Stream;
    using Direction = FileClient::Direction;
    using Handle = FileClient::Handle;

    void step();
    void connect();
    void disconnect();

    void askQuestions();
    void startPrograms();
    void pollPrograms();
    void signalProgram();
    void useFile();
    void useHeldFile();
    void setClock();
    void vanish();
    void comeAndGo();

    // Only where there is a host at the vsock.
    void useProgramOnVsock();
    void useProgramOnTerminal();
    void transferFile();
    void vanishDuringTransfer();

    void resolve(const std::vector<Effect>& effects);
    void resolveClose(const Effect& effect);
    void resolvePoll(const Effect& effect);
    bool takeEndIfEnded(std::size_t index);
    void adoptUnseen();
    void expect(bool truth, const std::string& what) const;
    std::string path(const std::string& name) const { return directory_ + "/" + name; }

    SoakTarget& target_;
    Dice dice_;
    std::string directory_;
    TrafficRecord record_;
    ProgramLedger ledger_;
    std::string knownBytes_;  ///< of the file "in"
    std::unique_ptr<HostClient> host_;
    std::unique_ptr<FileClient> files_;
    std::unique_ptr<ExecClient> exec_;
    std::deque<Handle> held_;  ///< open on the file "in"
    std::size_t unsettled_ = 0;
    std::map<std::string, std::size_t> counts_;  ///< of what has been done
};

}  // namespace corvane::vm
