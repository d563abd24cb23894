#pragma once

#include <filesystem>
#include <string>

namespace corvane::vm {

/// A guest's own copy of a disk, for as long as this lives. Machines may use it one after another.
class GuestDisk {
 public:
    /// Copies the disk at `image`; what is empty there takes no room here.
    explicit GuestDisk(const std::filesystem::path& image);
    GuestDisk(const GuestDisk&) = delete;
    GuestDisk& operator=(const GuestDisk&) = delete;
    ~GuestDisk();

    const std::filesystem::path& path() const { return path_; }

    /// Whether the guest had written everything to its file system and unmounted it. The functions
    /// that look into the disk are for the time when no machine uses it.
    bool isClean() const;
    /// The bytes of a regular file of the guest, "" when there is none.
    std::string readFile(const std::string& path) const;

 private:
    std::filesystem::path directory_;
    std::filesystem::path path_;
};

}  // namespace corvane::vm
