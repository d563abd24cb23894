// PendingInput against a model that keeps everything in one string.

#include <cstddef>
#include <cstdint>
#include <string>

#include "core/pending_input.h"
#include "tests/fuzz/check.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/fuzz/pending_model.h"

namespace corvane {
namespace {

std::string joined(const RequestLine& line) {
    std::string text;
    for (const InputSlice& slice : line) {
        check(!slice.bytes().empty(), "no slice is empty");
        text += slice.bytes();
    }
    return text;
}

/// Takes a line from both; false when there is none.
bool takeFromBoth(PendingInput& pending, PendingModel& model) {
    const auto line = pending.takeLine();
    const auto expected = model.takeLine();
    check(line.has_value() == expected.has_value(), "a line is complete in both");
    check(!line || joined(*line) == *expected, "the lines are the same");
    check(line || pending.size() == model.size(), "as much is left");
    return line.has_value();
}

void run(FuzzInput input) {
    PendingInput pending;
    PendingModel model;
    for (std::string_view rest = input.text(); !rest.empty();) {
        const std::string_view piece = input.takePiece(rest);
        pending.append(piece);
        model.append(piece);
        switch (input.next() % 8) {
            case 0:
                check(pending.abandonLine() == model.abandonLine(), "both were in a line");
                break;
            case 1:
                takeFromBoth(pending, model);
                break;
            case 2:
                break;
            case 3:
                pending.endAbandonedLine();
                model.endAbandonedLine();
                break;
            default:
                while (takeFromBoth(pending, model)) {
                }
        }
    }
    while (takeFromBoth(pending, model)) {
    }
}

}  // namespace
}  // namespace corvane

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    corvane::run(corvane::FuzzInput({data, size}));
    return 0;
}
