#include "tests/vm/support/wire_terminal.h"

#include <boost/json/array.hpp>

namespace corvane::vm {

boost::json::object WireTerminal::record() const {
    constexpr int none = 255;
    // EOF, EOL, EOL2, ERASE, WERASE, KILL, REPRINT, spare, INTR, QUIT, SUSP, DSUSP, START, STOP,
    // LNEXT, DISCARD, MIN, TIME, STATUS, spare.
    const boost::json::array characters{4,    none,      none, 127,     23,   21,  18,
                                        none, interrupt, 28,   suspend, none, 17,  19,
                                        22,   15,        1,    0,       none, none};
    return {{"iflag", inputFlags}, {"oflag", outputFlags}, {"cflag", controlFlags},
            {"lflag", localFlags}, {"cc", characters},     {"ispeed", speed},
            {"ospeed", speed}};
}

}  // namespace corvane::vm
