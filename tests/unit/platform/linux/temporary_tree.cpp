#include "tests/unit/platform/linux/temporary_tree.h"

#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace corvane {

namespace fs = std::filesystem;

TemporaryTree::TemporaryTree() {
    std::string pattern = fs::temp_directory_path() / "corvane-test-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("cannot make " + pattern);
    }
    root_ = fs::canonical(pattern);
}

TemporaryTree::~TemporaryTree() {
    std::error_code ignored;
    fs::remove_all(root_, ignored);
}

std::string TemporaryTree::path(const std::string& relative) const {
    return relative.empty() ? root_ : root_ / relative;
}

void TemporaryTree::makeDirectory(const std::string& relative) const {
    fs::create_directories(root_ / relative);
}

void TemporaryTree::makeFile(const std::string& relative, std::string_view content) const {
    fs::create_directories((root_ / relative).parent_path());
    std::ofstream file(root_ / relative, std::ios::binary);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    if (!file.flush()) {
        throw std::runtime_error("cannot write " + relative);
    }
}

void TemporaryTree::makeLink(const std::string& relative, const std::string& target) const {
    fs::create_directories((root_ / relative).parent_path());
    fs::create_symlink(target, root_ / relative);
}

}  // namespace corvane
