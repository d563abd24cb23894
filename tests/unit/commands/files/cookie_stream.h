#pragma once

#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "commands/files/file_handle_table.h"

namespace corvane {

/// A stream in the handle table whose file is this object: it fails as files rarely do. It must
/// outlive the stream. See fopencookie(3).
struct CookieStream {
    std::size_t readable = 0;  ///< so many bytes, all 'c', until `readError`, or the end when 0
    int readError = 0;
    int writeError = 0;          ///< 0: all is taken
    bool refusesWrites = false;  ///< without giving a reason
    int positionError = 0;       ///< of asking where the position is; 0: it is where it was set
    off64_t position = 0;

    /// Opens it and returns its handle.
    std::uint64_t open(const char* mode) {
        std::FILE* const stream = ::fopencookie(this, mode, {read, write, seek, nullptr});
        fileHandleTable.emplace(stream, stream);
        return fileHandle(stream);
    }

 private:
    static CookieStream& from(void* cookie) { return *static_cast<CookieStream*>(cookie); }

    static ssize_t read(void* cookie, char* buffer, std::size_t size) {
        CookieStream& file = from(cookie);
        if (file.readable == 0 && file.readError != 0) {
            errno = file.readError;
            return -1;
        }
        const std::size_t count = std::min(size, file.readable);
        std::memset(buffer, 'c', count);
        file.readable -= count;
        return static_cast<ssize_t>(count);
    }

    static ssize_t write(void* cookie, const char* /*buffer*/, std::size_t size) {
        if (from(cookie).writeError != 0) {
            errno = from(cookie).writeError;
            return 0;  // what the C library wants for an error
        }
        return from(cookie).refusesWrites ? 0 : static_cast<ssize_t>(size);
    }

    static int seek(void* cookie, off64_t* offset, int origin) {
        CookieStream& file = from(cookie);
        if (origin == SEEK_CUR && *offset == 0 && file.positionError != 0) {
            errno = file.positionError;
            return -1;
        }
        file.position = origin == SEEK_CUR ? file.position + *offset : *offset;
        *offset = file.position;
        return 0;
    }
};

}  // namespace corvane
