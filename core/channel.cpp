#include "core/channel.h"

#include <fcntl.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <limits>
#include <optional>
#include <string>

#include "core/descriptor_guard.h"
#include "core/message.h"
#include "platform/channel_device.h"
#include "platform/firmware.h"
#include "platform/platform.h"
#include "platform/serial_devices.h"
#include "platform/vsock_sockets.h"

namespace corvane {

namespace {

int currentDescriptor = -1;

/// The socket of the last connection that failed. It is left open as the channel's contract has it,
/// but only until the next one fails, so that a host that never listens cannot use descriptors up.
DescriptorGuard failedSocket;

void setCloseOnExec(int descriptor) {
    ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
}

std::optional<std::uint64_t> discoverPort() {
    if (const auto argument = platform().firmware.bootArgument(portPropertyKey)) {
        return argument;
    }
    std::uint64_t port = 0;
    if (readPortProperty(optionsNodePath, true, port) == 0 ||
        readPortProperty(productNodePath, false, port) == 0) {
        return port;
    }
    return std::nullopt;
}

/// Connects to the host and makes the socket the channel. False sends the caller to the serial
/// device.
bool openVsockChannel(std::uint64_t port) {
    if (port > std::numeric_limits<std::uint32_t>::max()) {
        logStatus(false, "Value %llu too large for uint32\n",
                  static_cast<unsigned long long>(port));
        return false;
    }
    VsockSockets& vsock = platform().vsockSockets;
    auto created = vsock.createStream();
    if (!created.ok()) {
        if (!meansNoVsock(created.error(), ENODEV)) {
            logStatus(false, "Error creating vsock socket: %s.\n",
                      errorText(created.error()).c_str());
        }
        return false;
    }
    DescriptorGuard socket = created.take();
    const auto port32 = static_cast<std::uint32_t>(port);
    if (const int error = vsock.connectTo(socket.borrow(), hostContextId, port32)) {
        logStatus(false, "Error connecting to vsock peer at address cid %u and port %u: %s.\n",
                  hostContextId, port32, errorText(error).c_str());
        failedSocket = std::move(socket);
        return false;
    }
    // 0 is no channel: it stands for "none" wherever descriptors are closed.
    currentDescriptor = socket.borrow() > 0 ? socket.borrow() : -1;
    setCloseOnExec(socket.release());
    return true;
}

bool belongsToVirtioConsole() {
    const auto devices = platform().serialDevices.list();
    if (!devices) {
        return false;
    }
    for (const SerialDevice& device : *devices) {
        if (device.dialInPath != serialChannelPath) {
            continue;
        }
        for (const std::string& driverClass : device.driverClasses) {
            if (driverClass == serialDriverClass) {
                return true;
            }
        }
        return false;  // only the first device of that path counts
    }
    return false;
}

void openSerialChannel() {
    ChannelDevice& device = platform().channelDevice;
    auto opened = device.openSerial(serialChannelPath);
    if (!opened.ok()) {
        std::exit(EXIT_FAILURE);
    }
    DescriptorGuard serial = opened.take();
    if (!belongsToVirtioConsole()) {
        logStatus(true, "Invalid guest agent environment.\n");
    }
    if (serial.borrow() > 0) {
        if (const int error = device.claimExclusive(serial.borrow())) {
            logStatus(true, "Error exclusively acquiring serial port: (%s)\n",
                      errorText(error).c_str());
        }
        if (const int error = device.clearStatusFlags(serial.borrow())) {
            logStatus(true, "Error clearing O_NONBLOCK (%s)\n", errorText(error).c_str());
        }
    }
    currentDescriptor = serial.release();
    setCloseOnExec(currentDescriptor);
}

/// The number that `text` begins with: decimal digits up to the first byte that is none; 0 without
/// any. More than 64 bits count as the largest value, which no port can be.
std::uint64_t leadingNumber(const std::string& text) {
    std::uint64_t value = 0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), value);
    return parsed.ec == std::errc::result_out_of_range ? std::numeric_limits<std::uint64_t>::max()
                                                       : value;
}

std::uint64_t littleEndian(const std::string& bytes) {
    std::uint64_t value = 0;
    for (std::size_t index = bytes.size(); index-- > 0;) {
        value = value << 8U | static_cast<unsigned char>(bytes[index]);
    }
    return value;
}

}  // namespace

int channelDescriptor() noexcept {
    return currentDescriptor;
}

void openChannel() {
    const auto port = discoverPort();
    if (!port || !openVsockChannel(*port)) {
        openSerialChannel();
    }
}

void reopenChannel() {
    platform().channelDevice.closeChannel(currentDescriptor);
    currentDescriptor = -1;
    openChannel();
}

int readPortProperty(const char* path, bool asText, std::uint64_t& port) {
    using Outcome = PropertyLookup::Outcome;
    const PropertyLookup lookup = platform().firmware.readProperty(path, portPropertyKey);
    switch (lookup.outcome) {
        case Outcome::registryUnreachable:
            logStatus(false, "Unable to reach the device registry: %s\n",
                      errorText(lookup.error).c_str());
            return 1;
        case Outcome::nodeAbsent:
            logStatus(false, "Cannot find entry %s on this system\n", path);
            return 1;
        case Outcome::keyNotPrepared:
            logStatus(false, "Unable to create key %s for %s\n", portPropertyKey, path);
            return 1;
        case Outcome::propertyAbsent:
            logStatus(false, "Unable to find key %s in %s\n", portPropertyKey, path);
            return 1;
        case Outcome::notData:
            logStatus(false, "Expecting data for %s in %s\n", portPropertyKey, path);
            return 1;
        case Outcome::data:
            break;
    }
    if (asText) {
        port = leadingNumber(lookup.data);
        return 0;
    }
    if (lookup.data.size() > sizeof port) {
        logStatus(false, "Expecting no more than %lu bytes of data for uint64 key %s in %s\n",
                  sizeof port, portPropertyKey, path);
        return 1;
    }
    port = littleEndian(lookup.data);
    return 0;
}

}  // namespace corvane
