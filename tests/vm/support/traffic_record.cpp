#include "tests/vm/support/traffic_record.h"

#include <array>
#include <cstdio>

namespace corvane::vm {
namespace {

std::string printable(std::string_view bytes) {
    std::string text;
    for (const char byte : bytes) {
        if (byte >= ' ' && byte <= '~') {
            text += byte;
        } else {
            std::array<char, 8> escaped{};
            std::snprintf(escaped.data(), escaped.size(), "\\x%02X",
                          static_cast<unsigned>(static_cast<unsigned char>(byte)));
            text += escaped.data();
        }
    }
    return text;
}

}  // namespace

std::string TrafficRecord::text() const {
    std::string text;
    for (const std::string& line : lines_) {
        text += line + '\n';
    }
    return text;
}

void TrafficRecord::add(std::string_view mark, std::string_view bytes) {
    constexpr std::size_t shown = 300;
    std::string line = std::string(mark) + printable(bytes.substr(0, shown));
    if (bytes.size() > shown) {
        line += "... (" + std::to_string(bytes.size()) + " bytes)";
    }
    lines_.push_back(std::move(line));
    if (lines_.size() > kept) {
        lines_.pop_front();
    }
}

}  // namespace corvane::vm
