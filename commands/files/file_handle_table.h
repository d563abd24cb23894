#pragma once

#include <cstdint>
#include <cstdio>
#include <unordered_map>

#include "core/arguments.h"

namespace corvane {

/// The streams that hosts hold by their handles: key and value are the same. A stream is in here
/// exactly as long as it is open for a host, and whoever takes it out has closed it. Destroying the
/// table closes nothing: the C library flushes its streams when the process exits.
using FileHandleTable = std::unordered_map<std::FILE*, std::FILE*>;

/// Main thread.
extern FileHandleTable fileHandleTable;

/// The number by which a host names a stream: its address. It may come again for another stream
/// when this one is closed.
std::uint64_t fileHandle(std::FILE* stream) noexcept;

/// Reads the argument "handle". Fails with "handle is not a number", or, when it names no stream in
/// the table, with "handle is not a valid file". Null after a failure.
std::FILE* requireFile(ArgumentReader& reader);

}  // namespace corvane
