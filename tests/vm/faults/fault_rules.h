#pragma once

#include <span>
#include <string>
#include <string_view>

namespace corvane::vm {

/// What is expected when a system call fails. The first rule that fits counts.
struct FaultRule {
    std::string_view scenarios;  ///< a pattern as of fnmatch(3) for their names
    std::string_view call;       ///< the same for lines of TracerReport::calls
    /// "done": the scenario comes out as without a fault. "exit N": the agent ends so, and another
    /// one serves. "elsewhere": not tried in this scenario. Else the text of the Deviation, in
    /// which TEXT and ERRNO stand for the error's text and number. Several, separated by " | ",
    /// where it depends on the state of the agent.
    std::string_view outcome = "done";
    std::string_view errors = "any";  ///< names, with blanks between them
    unsigned first = 1;               ///< of the occurrences that the rule is for
    unsigned last = ~0U;
    /// What the status log then says, with the same stand-ins.
    std::string_view log = {};
    /// What it does not say in the whole run.
    std::string_view unsaid = {};
    /// How many descriptors more the agent has afterwards, for good.
    int descriptors = 0;
    /// Of many calls at one place (each of 70 devices is looked at) six are made to fail.
    bool sampled = false;
    /// As the agent's memory is, the call may not be made in the run that is to see it fail.
    bool mayBeLeftOut = false;
};

std::span<const FaultRule> faultRules();

/// The rule for an error of a call; nullptr when there is none.
const FaultRule* findRule(const std::string& scenario, const std::string& call, unsigned occurrence,
                          const std::string& error);

/// The rules as a table of the documentation.
std::string ruleTable();

/// The text in which TEXT and ERRNO are replaced by those of the error.
std::string filledIn(std::string_view text, int error);

}  // namespace corvane::vm
