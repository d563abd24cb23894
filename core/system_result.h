#pragma once

#include <utility>
#include <variant>

namespace corvane {

/// The errno value of a failed system call. See errno(3).
struct SystemError {
    int number;
};

/// What a system service answers: a value, or the error it failed with.
template <typename T>
class SystemResult {
 public:
    SystemResult(T value) : outcome_(std::move(value)) {}          // NOLINT: meant to convert
    SystemResult(SystemError error) noexcept : outcome_(error) {}  // NOLINT: meant to convert

    [[nodiscard]] bool ok() const noexcept { return std::holds_alternative<T>(outcome_); }

    /// The error's number; 0 when there is a value.
    [[nodiscard]] int error() const noexcept {
        const auto* error = std::get_if<SystemError>(&outcome_);
        return error ? error->number : 0;
    }

    /// The value; only when `ok()`.
    [[nodiscard]] T& value() { return std::get<T>(outcome_); }
    [[nodiscard]] T take() { return std::move(std::get<T>(outcome_)); }

 private:
    std::variant<T, SystemError> outcome_;
};

}  // namespace corvane
