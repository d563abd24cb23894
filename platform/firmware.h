#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace corvane {

/// What became of a look into the device registry, in the order in which a look can fail.
struct PropertyLookup {
    enum class Outcome {
        registryUnreachable,  ///< `error` says why (errno)
        nodeAbsent,
        keyNotPrepared,
        propertyAbsent,
        notData,  ///< the property is there, but not as raw bytes
        data,     ///< `data` holds its bytes
    };

    Outcome outcome = Outcome::registryUnreachable;
    int error = 0;
    std::string data;
};

/// What the machine's firmware and boot loader tell the guest. One thread.
class Firmware {
 public:
    virtual ~Firmware() = default;

    /// The integer boot argument `name`; nothing when it is absent or not an unsigned integer.
    virtual std::optional<std::uint64_t> bootArgument(std::string_view name) = 0;

    /// Property `key` of the device-tree node at `node`, such as "/options".
    virtual PropertyLookup readProperty(std::string_view node, std::string_view key) = 0;
};

}  // namespace corvane
