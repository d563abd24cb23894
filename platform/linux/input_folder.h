#pragma once

#include <cstdint>
#include <string>

#include "core/descriptor_guard.h"

namespace corvane {

/// Tells when devices come to the folder of input devices: /dev/input on Linux, which need not
/// exist. The kernel removes it with the last device and makes it again for the next. One thread.
class InputFolder {
 public:
    /// `parent` is the folder that `name` comes and goes in.
    InputFolder(std::string parent, std::string name);

    /// Begins to watch, or goes on with a folder that has been made again. What happens from here
    /// on is told. False when neither the folder nor its parent can be watched.
    bool watch();

    /// False when one of them is not watched for want of memory or watches: another try in a while
    /// may do it.
    [[nodiscard]] bool isWatchedWhole() const noexcept { return isWatchedWhole_; }

    [[nodiscard]] const std::string& path() const noexcept { return path_; }

    /// Readable when something has happened; -1 when nothing can be watched.
    [[nodiscard]] int descriptor() const noexcept { return notices_.borrow(); }

    /// Takes what has happened, some of it when it is much. False when it has nothing to do with
    /// the devices.
    [[nodiscard]] bool takeNotices();

 private:
    int add(const std::string& path, std::uint32_t events);

    std::string parent_;
    std::string name_;
    std::string path_;
    DescriptorGuard notices_;
    int parentWatch_ = -1;
    bool isWatchedWhole_ = false;
};

}  // namespace corvane
