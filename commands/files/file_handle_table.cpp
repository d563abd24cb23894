#include "commands/files/file_handle_table.h"

namespace corvane {

FileHandleTable fileHandleTable;

std::uint64_t fileHandle(std::FILE* stream) noexcept {
    return reinterpret_cast<std::uintptr_t>(stream);
}

std::FILE* requireFile(ArgumentReader& reader) {
    const std::uint64_t handle = reader.requireNumber("handle").asUnsigned64();
    // Only compared until it is found: it may be any number.
    auto* const stream = reinterpret_cast<std::FILE*>(handle);  // NOLINT(performance-no-int-to-ptr)
    const auto found = fileHandleTable.find(stream);
    if (found == fileHandleTable.end()) {
        reader.fail("handle is not a valid file");
        return nullptr;
    }
    return found->second;
}

}  // namespace corvane
