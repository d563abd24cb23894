#pragma once

#include <string>

#include "tests/vm/soak/dice.h"

namespace corvane::vm {

/// A request that changes nothing, without its line feed, and how its answer begins.
struct Question {
    std::string line;
    std::string answer;
};

/// A question of any command, or of none, right or wrong.
Question randomQuestion(Dice& dice);

}  // namespace corvane::vm
