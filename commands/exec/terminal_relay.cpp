#include "commands/exec/terminal_relay.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <span>

#include "commands/exec/close_descriptors.h"

namespace corvane {

namespace {

constexpr int cannotBegin = 255;

bool neverBlock(int descriptor) noexcept {
    const int flags = ::fcntl(descriptor, F_GETFL);
    return flags >= 0 && ::fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) == 0;
}

bool meansLater(int error) noexcept {
    return error == EAGAIN || error == EINTR;
}

/// Waits for an event, or for so many milliseconds; -1 is without limit.
void await(int descriptor, int events, int patience) noexcept {
    pollfd waited{descriptor, static_cast<short>(events), 0};
    while (::poll(&waited, 1, patience) < 0 && errno == EINTR) {
    }
}

/// One direction. At most one buffer full is on its way, and the next is read only when all of it
/// is written: the end of `from` is noticed after everything before it has been passed on.
class Direction {
 public:
    Direction(int from, int to, std::span<char> buffer) noexcept
        : from_(from), to_(to), buffer_(buffer) {}

    [[nodiscard]] bool isPending() const noexcept { return !pending_.empty(); }

    /// The errno value that the last `fill` or `flush` failed with; 0 for an end of input.
    [[nodiscard]] int status() const noexcept { return status_; }

    /// Reads what there is, when nothing is pending. False when `from` has ended.
    bool fill() noexcept {
        if (isPending()) {
            return true;
        }
        const ssize_t count = ::read(from_, buffer_.data(), buffer_.size());
        if (count > 0) {
            pending_ = buffer_.first(static_cast<std::size_t>(count));
        }
        return succeeded(count);
    }

    /// Writes as much of what is pending as `to` takes at once. False when `to` has ended.
    bool flush() noexcept {
        if (!isPending()) {
            return true;
        }
        const ssize_t count = ::write(to_, pending_.data(), pending_.size());
        if (count > 0) {
            pending_ = pending_.subspan(static_cast<std::size_t>(count));
        }
        return succeeded(count);
    }

    /// Writes all that is pending, as long as that takes. Tries now and then, whatever poll(2)
    /// says: a vsock connection whose peer has gone may report nothing, but refuses a write.
    bool finish(int patience) noexcept {
        while (isPending()) {
            await(to_, POLLOUT, patience);
            if (!flush()) {
                return false;
            }
        }
        return true;
    }

    /// Passes on all that there is still to come.
    void drain(int patience) noexcept {
        while (finish(patience)) {
            await(from_, POLLIN, -1);
            if (!fill()) {
                return;
            }
        }
    }

 private:
    bool succeeded(ssize_t count) noexcept {
        if (count > 0 || (count < 0 && meansLater(errno))) {
            return true;
        }
        status_ = count < 0 ? errno : 0;
        return false;
    }

    int from_;
    int to_;
    std::span<char> buffer_;
    std::span<char> pending_;
    int status_ = 0;
};

/// Whether the host is gone for good and has not just ended its own direction. A vsock connection
/// does not report that as a hang-up, but refuses to send, be it nothing.
bool hasVanished(int connection) noexcept {
    return ::send(connection, "", 0, MSG_NOSIGNAL | MSG_DONTWAIT) < 0 && !meansLater(errno);
}

/// What to wait for on a descriptor. One of which nothing is wanted is left out (-1), since its
/// hang-up would be reported without end.
pollfd interestIn(int descriptor, int events) noexcept {
    return {events == 0 ? -1 : descriptor, static_cast<short>(events), 0};
}

/// Neither direction may wait for the other: a program whose output is not taken takes no input.
/// Returns the exit status.
int relay(Direction& input, Direction& output, int connection, int master, int patience) noexcept {
    bool hostIsSilent = false;  // it will send nothing more than what is there
    for (;;) {
        const int inputEnd = hostIsSilent ? 0 : POLLRDHUP;
        const int fromHost = input.isPending() ? inputEnd : POLLIN;
        const int fromMaster = output.isPending() ? 0 : POLLIN;
        std::array<pollfd, 2> waited{
            interestIn(connection, fromHost | (output.isPending() ? POLLOUT : 0)),
            interestIn(master, fromMaster | (input.isPending() ? POLLOUT : 0))};
        const bool lastInput = hostIsSilent && input.isPending();
        const int ready = ::poll(waited.data(), waited.size(), lastInput ? patience : -1);
        if ((ready < 0 && errno != EINTR) || (ready == 0 && hasVanished(connection))) {
            return 0;
        }
        if ((waited[1].revents & POLLHUP) != 0) {
            output.drain(patience);  // the program has ended: what it wrote last still counts
            return output.status();
        }
        if ((waited[0].revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0) {
            hostIsSilent = true;
        }
        if (!input.fill()) {
            output.finish(patience);
            return input.status();
        }
        if (!input.flush()) {
            output.drain(patience);
            return input.status();
        }
        if (!output.fill() || !output.flush()) {
            return output.status();
        }
    }
}

}  // namespace

void runTerminalRelay(int connection, int master, int started, int patience) noexcept {
    int kept[3] = {connection, master, started};  // NOLINT: as it is taken
    closeAllBut(kept, 0);
    const auto pageSize = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    if (::setsid() < 0) {
        ::_exit(cannotBegin);
    }
    void* memory =
        ::mmap(nullptr, 2 * pageSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED || !neverBlock(connection) || !neverBlock(master)) {
        ::_exit(cannotBegin);
    }
    auto* buffers = static_cast<char*>(memory);
    await(started, POLLIN, -1);
    ::close(started);
    Direction input(connection, master, {buffers, pageSize});
    Direction output(master, connection, {buffers + pageSize, pageSize});
    ::_exit(relay(input, output, connection, master, patience));
}

}  // namespace corvane
