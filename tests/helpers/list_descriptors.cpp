// Prints the numbers of the descriptors that it was started with, one a line, in ascending order.

#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <memory>
#include <set>

int main() {
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir("/proc/self/fd"), &::closedir);
    if (!directory) {
        std::perror("/proc/self/fd");
        return EXIT_FAILURE;
    }
    std::set<int> numbers;
    while (const dirent* entry = ::readdir(directory.get())) {
        if (entry->d_name[0] != '.') {
            numbers.insert(std::atoi(entry->d_name));
        }
    }
    numbers.erase(::dirfd(directory.get()));
    for (const int number : numbers) {
        std::printf("%d\n", number);
    }
    return EXIT_SUCCESS;
}
