#include "platform/linux/input_folder.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>

namespace corvane {

InputFolder::InputFolder(std::string parent, std::string name)
    : parent_(std::move(parent)),
      name_(std::move(name)),
      path_(parent_ + "/" + name_),
      notices_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {}

bool InputFolder::watch() {
    if (notices_.empty()) {
        return false;
    }
    isWatchedWhole_ = true;
    // The parent first: a folder that is made after the try at the folder itself is told.
    parentWatch_ = add(parent_, IN_CREATE | IN_MOVED_TO | IN_ONLYDIR);
    // A device's owner and mode are set after its coming: one that was refused may open now.
    const int folderWatch = add(path_, IN_CREATE | IN_MOVED_TO | IN_ATTRIB | IN_ONLYDIR);
    return parentWatch_ >= 0 || folderWatch >= 0;
}

/// Returns the watch, or -1.
int InputFolder::add(const std::string& path, std::uint32_t events) {
    const int watch = ::inotify_add_watch(notices_.borrow(), path.c_str(), events);
    isWatchedWhole_ = isWatchedWhole_ && (watch >= 0 || (errno != ENOMEM && errno != ENOSPC));
    return watch;
}

bool InputFolder::takeNotices() {
    std::array<char, 4096> buffer;
    const ssize_t count = ::read(notices_.borrow(), buffer.data(), buffer.size());
    bool concernsDevices = false;
    inotify_event notice{};
    for (std::size_t place = 0; count > 0 && place < static_cast<std::size_t>(count);
         place += sizeof notice + notice.len) {
        std::memcpy(&notice, buffer.data() + place, sizeof notice);
        // All sorts of devices come to the parent; of those only the folder counts. When notices
        // were lost, it may have been among them.
        const char* name = buffer.data() + place + sizeof notice;
        const bool isOfParent = notice.wd == parentWatch_ && (notice.mask & IN_Q_OVERFLOW) == 0;
        concernsDevices = concernsDevices || !isOfParent || (notice.len > 0 && name_ == name);
    }
    return concernsDevices;
}

}  // namespace corvane
