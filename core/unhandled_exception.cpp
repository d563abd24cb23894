#include "core/unhandled_exception.h"

#include <cstdlib>
#include <cxxabi.h>
#include <exception>
#include <memory>
#include <typeinfo>

#include "core/message.h"

namespace corvane {

namespace {

/// Says why the process is about to end.
void logEnd(const char* reason) {
    const std::type_info* type = abi::__cxa_current_exception_type();
    const char* mangled = type ? type->name() : "unknown";
    int status = 0;
    const std::unique_ptr<char, void (*)(void*)> name(
        abi::__cxa_demangle(mangled, nullptr, nullptr, &status), std::free);
    logStatus(false, "Unhandled exception: 'Error %s: %s'\n", name ? name.get() : mangled, reason);
}

}  // namespace

void endOnUnhandledException() noexcept {
    try {
        throw;
    } catch (const std::exception& exception) {
        logEnd(exception.what());
    } catch (...) {
        logEnd("no reason given");
    }
    std::exit(EXIT_FAILURE);
}

}  // namespace corvane
