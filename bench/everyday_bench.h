#pragma once

#include <string>

namespace corvane {

/// Adds the benchmarks of OpenSSH's clients to those that run. `directory` has the clients'
/// settings, `config`, with a host "bench" that lets them in without a question, and a file to
/// fetch, `file`, that this host has at the same path.
void addRemoteTools(const std::string& directory);

}  // namespace corvane
