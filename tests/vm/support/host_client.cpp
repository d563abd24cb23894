#include "tests/vm/support/host_client.h"

#include <random>

namespace corvane::vm {

void HostClient::synchronise(Limit limit) {
    static std::mt19937_64 numbers{std::random_device{}()};
    const std::string id = std::to_string(numbers() >> 12);
    send("\xFF{\"execute\":\"guest-sync-delimited\",\"arguments\":{\"id\":" + id + "}}\n");
    // An answer to an earlier host may end in the middle: the marker need not start its line.
    const std::string expected = "\xFF{\"return\":" + id + "}";
    while (!receiveLine(limit).ends_with(expected)) {
    }
}

std::string HostClient::request(std::string_view json, Limit limit) {
    send(std::string(json) + '\n');
    return receiveLine(limit);
}

void HostClient::send(std::string_view bytes) {
    if (record_ != nullptr) {
        record_->sent(bytes);
    }
    socket_.send(bytes);
}

void HostClient::sendWhileReceiving(std::string_view bytes) {
    if (record_ != nullptr) {
        record_->sent(bytes);
    }
    socket_.sendWhileReceiving(bytes);
}

std::string HostClient::receiveLine(Limit limit) {
    std::string line = socket_.receiveLine(limit);
    if (record_ != nullptr) {
        record_->received(line);
    }
    return line;
}

}  // namespace corvane::vm
