#pragma once

#include <string>
#include <string_view>

namespace corvane::vm {

/// In hexadecimal digits, as the guest's sha256sum prints it.
std::string sha256(std::string_view bytes);

}  // namespace corvane::vm
