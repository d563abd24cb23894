// Gives back what comes from a virtio port, and nothing more: as little as anybody can do who
// answers a host there.
//
//   port-echo PORT
//
// Ends with its host, status 0.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cstdio>

int main(int count, char** words) {
    const int port = count == 2 ? ::open(words[1], O_RDWR | O_CLOEXEC) : -1;
    if (port < 0) {
        std::perror("port-echo");
        return 1;
    }
    std::array<char, 8192> buffer;  // as the agent reads
    for (;;) {
        pollfd waited{port, POLLIN, 0};
        ::poll(&waited, 1, -1);
        const ssize_t got = ::read(port, buffer.data(), buffer.size());
        if (got <= 0 || ::write(port, buffer.data(), static_cast<std::size_t>(got)) != got) {
            return got == 0 ? 0 : 1;
        }
    }
}
