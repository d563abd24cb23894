#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/linux/linux_accounts.h"
#include "platform/linux/linux_file_streams.h"
#include "platform/linux/linux_network_interfaces.h"
#include "platform/linux/linux_private_directory.h"
#include "platform/linux/linux_terminals.h"
#include "platform/platform.h"
#include "tests/fakes/allocation_free_services.h"
#include "tests/fakes/fake_platform.h"
#include "tests/fakes/own_services.h"

namespace corvane {

/// A request line without its end.
std::string request(const std::string& command, const std::string& arguments);

/// The line of an answer of the class "GenericError".
std::string errorAnswer(const std::string& description);

/// The first run of digits.
std::string numberIn(const std::string& answer);

/// The read loop with all commands, on the guest's own services where that does no harm. Makes the
/// allocations of a request fail, one after the other.
class CommandWithoutMemory : public testing::Test {
 protected:
    CommandWithoutMemory();
    ~CommandWithoutMemory() override;
    void SetUp() override;
    void TearDown() override;

    [[nodiscard]] std::string path(const std::string& name) const;

    /// What a request does, and what else may be said of it than what is said with memory, and
    /// "out of memory".
    struct Subject {
        /// Prepares what is needed, with memory, and makes the request.
        std::function<std::string()> request;
        std::vector<std::string> failures = {};
        /// Looks at what it has come to. Told whether it was answered as with memory.
        std::function<void(bool done)> check = [](bool) {};
    };

    /// Fails each allocation once. The state of the agent must be consistent after each. All of
    /// that is done twice, after which no more memory may be in use than after the first time: the
    /// C library keeps some.
    void expectConsistency(const std::string& name, const Subject& subject);

    std::string answerTo(const std::string& line);
    /// Returns the handle.
    std::string openFile(const std::string& name, const std::string& mode);
    /// Starts a program and waits for its end, which stays to be asked for. Returns its pid.
    std::string endedProgram(const std::string& arguments);

    FakePlatform fakes_;
    QuietLog log_;
    PiecewiseDevice device_;
    std::string answer_;           ///< to the request of a Subject
    std::size_t descriptors_ = 0;  ///< how many are open before and after each request
    long counts_ = 0;              ///< of all allocations that have failed

 private:
    struct Outcome {
        bool reached = false;  ///< there was such an allocation
        std::string answer;
    };

    [[nodiscard]] std::string captureDirectory() const { return path("captured"); }
    /// Sends a line while one allocation fails, and a ping afterwards, which must be answered.
    Outcome run(const std::string& line, long allocation);
    /// Returns how many allocations there are. The last try is one without a failure.
    long failEach(const Subject& subject, const std::string& regular);
    Outcome tryOnce(const Subject& subject, long allocation, const std::string& regular);
    /// Takes away what a request may have left, which must be what the tables say.
    void cleanUp();

    const std::string directory_;
    LinuxAccounts accounts_;
    LinuxPrivateDirectory privateDirectory_{captureDirectory()};
    LinuxTerminals terminals_;
    LinuxFileStreams fileStreams_;
    LinuxNetworkInterfaces networkInterfaces_;
    Platform services_ = platformWith({.systemLog = &log_,
                                       .channelDevice = &device_,
                                       .accounts = &accounts_,
                                       .privateDirectory = &privateDirectory_,
                                       .terminals = &terminals_,
                                       .fileStreams = &fileStreams_,
                                       .networkInterfaces = &networkInterfaces_});
    PlatformScope scope_{services_};
};

}  // namespace corvane
