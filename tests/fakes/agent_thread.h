#pragma once

#include <atomic>
#include <string>
#include <string_view>
#include <thread>

#include "core/descriptor_guard.h"
#include "tests/fakes/fake_platform.h"

namespace corvane {

/// The read loop on a thread of its own, on the fake platform's serial channel, and the host at the
/// other end of it. Ends the thread when it goes out of scope.
class AgentThread {
 public:
    explicit AgentThread(FakePlatform& platform);
    ~AgentThread();
    AgentThread(const AgentThread&) = delete;
    AgentThread& operator=(const AgentThread&) = delete;

    /// Sends all of `bytes`.
    void send(std::string_view bytes) const;

    /// Reads up to and without the next line feed. Empty at the end of input.
    [[nodiscard]] std::string receiveLine();

    /// One request line and its response line.
    [[nodiscard]] std::string request(std::string_view line);

    /// Hangs up and comes back as a new host; returns when the agent has opened the channel anew.
    void reconnect();

    [[nodiscard]] int hostEnd() const noexcept { return host_.borrow(); }

 private:
    FakePlatform& platform_;
    DescriptorGuard host_;
    std::string received_;  ///< what came after the last line that was given out
    std::atomic<bool> ending_ = false;
    std::thread loop_;
};

}  // namespace corvane
