#include <algorithm>
#include <cstdlib>
#include <fnmatch.h>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "tests/vm/faults/fault_rules.h"
#include "tests/vm/faults/plausible_errors.h"
#include "tests/vm/faults/scenarios.h"
#include "tests/vm/guest_fixture.h"

namespace corvane::vm {
namespace {

constexpr char printState[] = "fault-tracer state | grep -E 'descriptors|children'";
constexpr char printWhetherOver[] = "fault-tracer state | grep -cE 'fault 1|agent -1'";
/// The calls that the threads of the agent wait in, as numbers of <asm/unistd_64.h>.
constexpr char printWaits[] =
    "cut -d ' ' -f 1 /proc/$(fault-tracer state | sed -n 's/^agent //p')/task/*/syscall | sort -n";
// poll twice, rt_sigtimedwait, futex
constexpr char expectedWaits[] = "7\n7\n128\n202";
/// Of each call so many are made to fail, and the last one.
constexpr unsigned occurrencesFromTheFirst = 4;
constexpr std::size_t sampleOfManyCalls = 6;

/// How many faults are tried in each scenario; 0, for which the word "all" stands, is all of them.
std::size_t faultsPerScenario() {
    const char* chosen = std::getenv("CORVANE_FAULTS");
    return chosen == nullptr ? 6 : std::strtoul(chosen, nullptr, 10);
}

constexpr const char* everyCall = "*";

/// Only faults of calls that fit this pattern are tried.
std::string callPattern() {
    const char* chosen = std::getenv("CORVANE_FAULT_CALLS");
    return chosen == nullptr ? everyCall : chosen;
}

/// Evenly spread over all of them, the first and the last among them.
template <typename Element>
std::vector<Element> sampleOf(const std::vector<Element>& all, std::size_t count) {
    if (count == 0 || all.size() <= count) {
        return all;
    }
    std::vector<Element> sample;
    for (std::size_t index = 0; index < count; ++index) {
        sample.push_back(all[index * (all.size() - 1) / (count - 1)]);
    }
    return sample;
}

struct PlannedFault {
    InjectedFault fault;
    std::string error;
    const FaultRule* rule = nullptr;
};

std::ostream& operator<<(std::ostream& stream, const PlannedFault& planned) {
    return stream << planned.fault.call << " (" << planned.fault.occurrence << ") fails with "
                  << planned.error;
}

/// The guest in which scenarios run, from their first use of its channel to the first use of
/// another one: the machine that runs the tests has to emulate one guest at a time.
class FaultGuest : public ::testing::Environment {
 public:
    FaultBench& bench(Channel channel) {
        if (!bench_ || channel_ != channel) {
            TearDown();
            machine_ = bootFor(channel);
            bench_ = std::make_unique<FaultBench>(*machine_, channel);
            channel_ = channel;
        }
        return *bench_;
    }
    void TearDown() override {
        bench_.reset();
        machine_.reset();
    }

 private:
    std::unique_ptr<VirtualMachine> machine_;
    std::unique_ptr<FaultBench> bench_;
    Channel channel_ = Channel::serial;
};

FaultGuest& faultGuest =
    *static_cast<FaultGuest*>(::testing::AddGlobalTestEnvironment(new FaultGuest));

class FaultMatrix : public GuestTest, public ::testing::WithParamInterface<Scenario> {
 protected:
    void SetUp() override {
        use(bench().machine());
        bench().restart();
    }
    static FaultBench& bench() { return faultGuest.bench(GetParam().channel); }

    std::map<std::string, unsigned> callsOfOneRun() {
        if (GetParam().startsAgent) {
            bench().startAgent();
        } else {
            bench().tracer().begin();
        }
        GetParam().run(bench());
        if (GetParam().startsAgent) {
            // The threads begin with their work when the first request may have been answered.
            awaitInGuest(printWaits, expectedWaits);
        }
        return bench().tracer().report().calls;
    }

    /// Every call that the scenario makes, and how often it can be relied on to make it: some come
    /// more or less often as it happens, or not at all.
    std::map<std::string, unsigned> recordCalls() {
        constexpr int rounds = 3;
        std::map<std::string, std::vector<unsigned>> counts;
        for (int round = 0; round < rounds; ++round) {
            for (const auto& [call, count] : callsOfOneRun()) {
                counts[call].push_back(count);
            }
        }
        std::map<std::string, unsigned> least;
        for (const auto& [call, found] : counts) {
            least[call] = found.size() < rounds ? 0 : *std::min_element(found.begin(), found.end());
        }
        return least;
    }

    /// The faults of one call. `many` takes those of which a sample will do.
    void planCall(const std::string& call, unsigned count, std::vector<PlannedFault>& all,
                  std::map<const FaultRule*, std::vector<PlannedFault>>& many) {
        if (::fnmatch(callPattern().c_str(), call.c_str(), FNM_EXTMATCH) != 0) {
            return;
        }
        const auto errors = plausibleErrors(call);
        if (!errors) {
            ADD_FAILURE() << "a system call that nobody has looked up yet: " << call;
            return;
        }
        for (const std::string& error : *errors) {
            // Something must also be said about a call that cannot be relied on to come.
            for (unsigned occurrence = 1; occurrence <= std::max(count, 1U); ++occurrence) {
                const FaultRule* rule = findRule(GetParam().name, call, occurrence, error);
                PlannedFault planned{{call, occurrence, errorNumber(error)}, error, rule};
                if (rule == nullptr) {
                    ADD_FAILURE() << "nothing is said of what happens when " << planned;
                } else if (rule->outcome == "elsewhere" || count == 0) {
                    continue;
                } else if (rule->sampled) {
                    many[rule].push_back(planned);
                    continue;
                }
                if (occurrence <= occurrencesFromTheFirst || occurrence == count) {
                    all.push_back(planned);
                }
            }
        }
    }

    std::vector<PlannedFault> plan() {
        std::vector<PlannedFault> all;
        std::map<const FaultRule*, std::vector<PlannedFault>> many;
        for (const auto& [call, count] : recordCalls()) {
            planCall(call, count, all, many);
        }
        for (const auto& [rule, planned] : many) {
            const auto sample = sampleOf(planned, sampleOfManyCalls);
            all.insert(all.end(), sample.begin(), sample.end());
        }
        return sampleOf(all, faultsPerScenario());
    }

    /// Runs the scenario with the fault and says how it has come out, in the words of the rules.
    std::string outcomeOf(const PlannedFault& planned) {
        const std::string expected(planned.rule == nullptr ? "" : planned.rule->outcome);
        try {
            if (GetParam().startsAgent) {
                bench().startAgent(&planned.fault);
            } else {
                bench().tracer().begin(&planned.fault);
            }
            if (expected.starts_with("exit ")) {
                GetParam().provoke(bench());
                return "exit " + std::to_string(bench().tracer().awaitEnd().exitStatus);
            }
            bench().expect(expected);
            GetParam().run(bench());
        } catch (const Deviation& deviation) {
            // Capture files and ports have another number each time.
            return std::regex_replace(deviation.what(), std::regex("([_:])[0-9]+"), "$1#");
        } catch (const HangError& error) {
            const TracerReport report = bench().tracer().report();
            return report.agent < 0 ? "exit " + std::to_string(report.exitStatus)
                                    : std::string("hang: ") + error.what();
        }
        return "done";
    }

    void expectHealth(const PlannedFault& planned) {
        const bool mustCome = planned.rule == nullptr || !planned.rule->mayBeLeftOut;
        if (mustCome) {
            EXPECT_NO_THROW(awaitInGuest(printWhetherOver, "1")) << planned;
        }
        const TracerReport report = bench().tracer().report();
        const int kept = planned.rule == nullptr ? 0 : planned.rule->descriptors;
        if (report.agent < 0) {
            bench().restart();
            return;
        }
        EXPECT_TRUE(report.faultHappened || !mustCome) << planned;
        bench().expect("done");
        EXPECT_NO_THROW(bench().ask("guest-ping")) << planned;
        if (!isAsBefore(kept)) {
            // What waits for its end, or is kept for the next time, is no leak: one more run.
            bench().closePeer();
            if (!GetParam().startsAgent) {
                EXPECT_NO_THROW(GetParam().run(bench())) << "once more after " << planned;
            }
            EXPECT_NO_THROW(awaitInGuest(printState, expectedState(kept))) << planned;
        }
        if (!isAsBefore(0)) {
            bench().restart();
        }
    }

    std::string expectedState(int kept) const {
        return "descriptors " + std::to_string(descriptors_ + kept) + "\nchildren 0";
    }
    bool isAsBefore(int kept) { return shell().check(printState) == expectedState(kept); }

    void tryFault(const PlannedFault& planned) {
        const std::size_t start = bench().machine().log().end();
        const std::string outcome = outcomeOf(planned);
        const bool healthy = outcome.find("hang") == std::string::npos;
        if (planned.rule == nullptr) {
            std::cout << "RULE? " << planned << " | " << outcome << std::endl;
        } else {
            const std::string expected = filledIn(planned.rule->outcome, planned.fault.error);
            EXPECT_TRUE((" | " + expected + " | ").find(" | " + outcome + " | ") !=
                        std::string::npos)
                << planned << ": " << outcome << ", not " << expected;
            if (!planned.rule->log.empty()) {
                const std::string line = filledIn(planned.rule->log, planned.fault.error);
                EXPECT_NO_THROW(bench().machine().log().await(line, start, faultPatience))
                    << planned;
            }
            if (!planned.rule->unsaid.empty()) {
                bench().machine().settleLog();
                EXPECT_EQ(bench().machine().log().since(start).find(planned.rule->unsaid),
                          std::string::npos)
                    << planned << ": the log says something of " << planned.rule->unsaid;
            }
        }
        if (healthy) {
            expectHealth(planned);
        } else {
            bench().restart();
        }
    }

    int descriptors_ = 0;
};

TEST_P(FaultMatrix, EachSystemCallThatFailsOnceIsBorne) {
    const std::vector<PlannedFault> faults = plan();
    ASSERT_TRUE(!faults.empty() || callPattern() != everyCall) << "the scenario tries nothing";
    // By now the start of the agent is over, and the device of the power button is open.
    descriptors_ = bench().tracer().report().descriptors;
    for (const PlannedFault& planned : faults) {
        tryFault(planned);
    }
    std::cout << faults.size() << " faults" << std::endl;
}

/// The page is written anew where $CORVANE_UPDATE_DOCUMENTATION is set.
TEST(FaultRules, AreTheTableOfTheDocumentation) {
    constexpr std::string_view begin = "<!-- the table of tests/vm/faults -->\n";
    constexpr std::string_view end = "<!-- the end of the table -->\n";
    std::ifstream file(CORVANE_TESTING_PAGE);
    std::string page{std::istreambuf_iterator<char>(file), {}};
    const auto first = page.find(begin);
    const auto last = page.find(end);
    ASSERT_NE(first, std::string::npos);
    ASSERT_NE(last, std::string::npos);
    const std::string before = page.substr(0, first + begin.size());
    const std::string expected = before + '\n' + ruleTable() + '\n' + page.substr(last);
    if (std::getenv("CORVANE_UPDATE_DOCUMENTATION") != nullptr) {
        std::ofstream(CORVANE_TESTING_PAGE) << expected;
        page = expected;
    }
    EXPECT_TRUE(page == expected) << "run it with CORVANE_UPDATE_DOCUMENTATION=1";
}

std::string testName(const ::testing::TestParamInfo<Scenario>& scenario) {
    std::string name = scenario.param.name;
    std::erase_if(name, [](char byte) { return byte == ' ' || byte == '-'; });
    return name;
}

INSTANTIATE_TEST_SUITE_P(In, FaultMatrix,
                         ::testing::ValuesIn(scenarios().begin(), scenarios().end()), testName);

}  // namespace
}  // namespace corvane::vm
