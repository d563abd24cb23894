#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace corvane {

/// A directory of a test's own, removed with all in it. Paths are relative to it, and folders on
/// the way are made.
class TemporaryTree {
 public:
    TemporaryTree();
    ~TemporaryTree();
    TemporaryTree(const TemporaryTree&) = delete;
    TemporaryTree& operator=(const TemporaryTree&) = delete;

    [[nodiscard]] std::string path(const std::string& relative = "") const;

    void makeDirectory(const std::string& relative) const;
    void makeFile(const std::string& relative, std::string_view content) const;
    /// A symbolic link that holds `target` as it is given.
    void makeLink(const std::string& relative, const std::string& target) const;

 private:
    std::filesystem::path root_;
};

}  // namespace corvane
