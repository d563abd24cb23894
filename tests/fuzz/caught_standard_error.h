#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "core/descriptor_guard.h"
#include "tests/fuzz/check.h"
#include "tests/fuzz/real_standard_error.h"

namespace corvane {

/// Takes what is written to standard error for as long as it lives.
class CaughtStandardError {
 public:
    CaughtStandardError() : file_(::memfd_create("caught", MFD_CLOEXEC)) {
        realStandardError();
        ::dup2(file_.borrow(), STDERR_FILENO);
    }
    ~CaughtStandardError() { ::dup2(realStandardError(), STDERR_FILENO); }
    CaughtStandardError(const CaughtStandardError&) = delete;
    CaughtStandardError& operator=(const CaughtStandardError&) = delete;

    [[nodiscard]] std::string text() const {
        std::string text(static_cast<std::size_t>(::lseek(file_.borrow(), 0, SEEK_END)), '\0');
        const ssize_t count = ::pread(file_.borrow(), text.data(), text.size(), 0);
        check(count == static_cast<ssize_t>(text.size()), "what was caught can be read");
        return text;
    }

 private:
    DescriptorGuard file_;
};

}  // namespace corvane
