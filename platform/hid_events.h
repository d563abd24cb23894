#pragma once

#include <cstdint>
#include <functional>

namespace corvane {

/// The Consumer page, and Power and Menu on it. HID Usage Tables, section 15.
inline constexpr std::uint32_t consumerUsagePage = 0x0C;
inline constexpr std::uint32_t consumerPowerUsage = 0x30;
inline constexpr std::uint32_t consumerMenuUsage = 0x40;

/// What a human interface device reports. Usage pages and usages are those of the HID Usage Tables
/// (usb.org).
struct HidEvent {
    /// The only type that the agent knows: a key, whatever the device is.
    static constexpr std::uint32_t keyboardType = 3;

    std::uint32_t type = 0;
    std::uint32_t usagePage = 0;
    std::uint32_t usage = 0;
    std::uint32_t keyDown = 0;  ///< 0 for the release
};

/// The guest's human interface devices.
class HidEvents {
 public:
    using Handler = std::function<void(const HidEvent& event)>;

    virtual ~HidEvents() = default;

    /// Calls `handler` on the calling thread for what the devices of one usage page report, those
    /// that are plugged in later included. Goes on for good: comes back, with false, when the
    /// devices cannot be listened to at all.
    [[nodiscard]] virtual bool deliver(std::uint32_t primaryUsagePage, const Handler& handler) = 0;
};

}  // namespace corvane
