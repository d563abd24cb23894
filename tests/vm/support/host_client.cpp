#include "tests/vm/support/host_client.h"

#include <random>

namespace corvane::vm {

void HostClient::synchronise() {
    static std::mt19937_64 numbers{std::random_device{}()};
    const std::string id = std::to_string(numbers() >> 12);
    socket_.send("\xFF{\"execute\":\"guest-sync-delimited\",\"arguments\":{\"id\":" + id + "}}\n");
    // An answer to an earlier host may end in the middle: the marker need not start its line.
    const std::string expected = "\xFF{\"return\":" + id + "}";
    while (!socket_.receiveLine().ends_with(expected)) {
    }
}

std::string HostClient::request(std::string_view json, Limit limit) {
    socket_.send(std::string(json) + '\n');
    return socket_.receiveLine(limit);
}

}  // namespace corvane::vm
