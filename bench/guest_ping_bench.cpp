// Round trips of "guest-ping" with the agent of a Debian guest, whose log is the journal, beside
// those of a program that gives back what it gets, by turns at the same port of the same guest.
//
//   CORVANE_BENCH_TABLE    the file for the ratio, see ratio_table.cpp (none)
//   CORVANE_BENCH_TURNS    how many turns each of the two has (5)
//   CORVANE_BENCH_SECONDS  how long a turn is measured (5)

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "bench/ratio_table.h"
#include "tests/vm/debian/debian_fixture.h"
#include "tests/vm/support/file_client.h"

namespace corvane::vm {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::string_view ping = R"({"execute":"guest-ping"})";
constexpr std::string_view pong = R"({"return":{}})";
constexpr const char* port = "/dev/virtio-ports/org.qemu.guest_agent.0";
constexpr const char* echoProgram = "/root/port-echo";

std::string setting(const char* name, const char* otherwise) {
    const char* chosen = std::getenv(name);
    return chosen != nullptr ? chosen : otherwise;
}

std::string bytesOf(const char* path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// Pings that come before those that are measured.
constexpr int unmeasured = 50;

struct RoundTrips {
    int count = 0;  ///< of those that are measured
    double secondsEach = 0;
};

/// Pings for so long, after the unmeasured ones.
RoundTrips measure(HostClient& host, std::string_view answer, std::chrono::duration<double> span) {
    const auto once = [&] {
        if (host.request(ping) != answer) {
            throw std::runtime_error("not the answer that was to come");
        }
    };
    for (int i = 0; i < unmeasured; ++i) {
        once();
    }
    RoundTrips result;
    const auto start = Clock::now();
    std::chrono::duration<double> taken{};
    do {
        once();
        ++result.count;
        taken = Clock::now() - start;
    } while (taken < span);
    result.secondsEach = taken.count() / result.count;
    return result;
}

class PingInDebian : public DebianTest {
 protected:
    /// The journal is on the disk alone, as users have it: the tests' copy on the emulated serial
    /// console goes byte by byte. It takes every entry, however many there are.
    void SetUp() override {
        DebianTest::SetUp();
        shell().check(
            "printf '[Journal]\\nForwardToConsole=no\\nRateLimitIntervalSec=0\\n' "
            ">/etc/systemd/journald.conf.d/for-measuring.conf && "
            "systemctl restart systemd-journald.service");
        HostClient host = synchronisedHost();
        FileClient(host).store(echoProgram, bytesOf(PORT_ECHO_PATH), 65536);
        shell().check(std::string("chmod 755 ") + echoProgram);
        shell().check("systemctl stop corvane.service");
    }

    double agentsTurn() {
        shell().check("systemctl start corvane.service");
        HostClient host = synchronisedHost();
        const RoundTrips trips = measure(host, pong, span_);
        // A request and its response, each: of the handshake and of all pings.
        EXPECT_GE(entriesOfAgent(), 2 * (1 + unmeasured + trips.count));
        host.disconnect();
        shell().check("systemctl stop corvane.service");
        return trips.secondsEach;
    }

    double echosTurn() {
        HostClient host = machine().connectHost();
        shell().check(std::string("systemd-run --quiet --collect --unit=port-echo ") + echoProgram +
                      ' ' + port);
        // It may get what was meant for the agent before it.
        host.send("begin\n");
        while (!host.receiveLine().ends_with("begin")) {
        }
        const RoundTrips trips = measure(host, ping, span_);
        host.disconnect();
        // It ends by itself, perhaps before this.
        shell().check("systemctl stop port-echo.service 2>/dev/null || true");
        return trips.secondsEach;
    }

 private:
    int entriesOfAgent() {
        return std::stoi(shell().check("journalctl --sync; journalctl -q -o cat -t corvane _PID=" +
                                       agentPid() + " CORVANE_CATEGORY=transactions | wc -l"));
    }

    const std::chrono::duration<double> span_{std::stod(setting("CORVANE_BENCH_SECONDS", "5"))};
};

TEST_F(PingInDebian, TakesNotMuchLongerThanABareEcho) {
    std::vector<double> agent;
    std::vector<double> echo;
    std::vector<double> ratios;
    for (int turns = std::stoi(setting("CORVANE_BENCH_TURNS", "5")); turns > 0; --turns) {
        echo.push_back(echosTurn());
        agent.push_back(agentsTurn());
        ratios.push_back(echo.back() / agent.back());
    }
    for (std::vector<double>* values : {&agent, &echo, &ratios}) {
        std::sort(values->begin(), values->end());
    }
    RatioTable table(setting("CORVANE_BENCH_TABLE", ""));
    table.add({"pings per second in Debian, with the journal", {}, {}, Ratio::Target::atLeast, 0.5},
              ratios, shownTime(medianOf(agent)), shownTime(medianOf(echo)));
}

}  // namespace
}  // namespace corvane::vm
