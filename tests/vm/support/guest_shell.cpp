#include "tests/vm/support/guest_shell.h"

#include <cstdint>
#include <sstream>
#include <stdexcept>

namespace corvane::vm {
namespace {

constexpr std::string_view alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string encode(std::string_view text) {
    std::string encoded;
    std::uint32_t bits = 0;
    int held = 0;
    for (const char character : text) {
        bits = (bits << 8) | static_cast<std::uint8_t>(character);
        for (held += 8; held >= 6; held -= 6) {
            encoded.push_back(alphabet[(bits >> (held - 6)) & 63]);
        }
    }
    if (held > 0) {
        encoded.push_back(alphabet[(bits << (6 - held)) & 63]);
    }
    encoded.append((4 - encoded.size() % 4) % 4, '=');
    return encoded;
}

std::string decode(std::string_view encoded) {
    std::string text;
    std::uint32_t bits = 0;
    int held = 0;
    for (const char character : encoded) {
        const auto value = alphabet.find(character);
        if (value == std::string_view::npos) {
            break;
        }
        bits = (bits << 6) | static_cast<std::uint32_t>(value);
        held += 6;
        if (held >= 8) {
            held -= 8;
            text.push_back(static_cast<char>((bits >> held) & 255));
        }
    }
    return text;
}

}  // namespace

void GuestShell::awaitReady(Limit limit) {
    while (!socket_.receiveLine(limit).ends_with("ready")) {
    }
}

CommandResult GuestShell::run(std::string_view command, Limit limit) {
    const std::string id = std::to_string(++lastId_);
    socket_.send(id + ' ' + encode(command) + '\n');
    for (;;) {
        std::istringstream answer(socket_.receiveLine(limit));
        std::string answeredId;
        std::string output;
        CommandResult result;
        answer >> answeredId >> result.status >> output;
        // Answers to commands that were given up on are passed over.
        if (answeredId == id) {
            result.output = decode(output);
            return result;
        }
    }
}

std::string GuestShell::check(std::string_view command, Limit limit) {
    CommandResult result = run(command, limit);
    if (result.status != 0) {
        throw std::runtime_error("status " + std::to_string(result.status) + " of '" +
                                 std::string(command) + "': " + result.output);
    }
    if (result.output.ends_with('\n')) {
        result.output.pop_back();
    }
    return result.output;
}

}  // namespace corvane::vm
