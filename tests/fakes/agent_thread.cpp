#include "tests/fakes/agent_thread.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <stdexcept>

#include "core/channel.h"
#include "core/read_loop.h"

namespace corvane {

AgentThread::AgentThread(FakePlatform& platform) : platform_(platform) {
    openChannel();
    host_ = platform_.channelDevice.takeHostEnd();
    loop_ = std::thread([this] {
        ReadLoop loop;
        while (!ending_) {
            loop.pass();
        }
        platform_.channelDevice.closeChannel(channelDescriptor());
    });
}

AgentThread::~AgentThread() {
    ending_ = true;
    host_.closeNow();
    loop_.join();
}

void AgentThread::send(std::string_view bytes) const {
    while (!bytes.empty()) {
        const ssize_t sent = ::write(host_.borrow(), bytes.data(), bytes.size());
        if (sent <= 0) {
            throw std::runtime_error("the agent's end is closed");
        }
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
}

std::string AgentThread::receiveLine() {
    std::array<char, 65536> buffer;
    for (std::size_t searched = 0;;) {
        const std::size_t end = received_.find('\n', searched);
        if (end != std::string::npos) {
            std::string line = received_.substr(0, end);
            received_.erase(0, end + 1);
            return line;
        }
        searched = received_.size();
        const ssize_t count = ::read(host_.borrow(), buffer.data(), buffer.size());
        if (count <= 0) {
            return {};
        }
        received_.append(buffer.data(), static_cast<std::size_t>(count));
    }
}

std::string AgentThread::request(std::string_view line) {
    send(std::string(line) + "\n");
    return receiveLine();
}

void AgentThread::reconnect() {
    host_.closeNow();
    received_.clear();
    host_ = platform_.channelDevice.takeHostEnd();
}

}  // namespace corvane
