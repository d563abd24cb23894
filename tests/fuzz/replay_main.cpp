// Runs a fuzz target on saved samples: on each file that is named, or that lies in a directory that
// is named. A sample that fails ends the process.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

bool replay(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    if (!file.good() && !file.eof()) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return false;
    }
    std::fprintf(stderr, "%s\n", path.c_str());
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    std::size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        std::vector<std::filesystem::path> paths;
        if (std::filesystem::is_directory(argv[i])) {
            for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
                paths.push_back(entry.path());
            }
        } else {
            paths.emplace_back(argv[i]);
        }
        for (const auto& path : paths) {
            if (!replay(path)) {
                return 1;
            }
            ++count;
        }
    }
    std::fprintf(stderr, "%zu samples replayed\n", count);
    return count > 0 ? 0 : 1;
}
