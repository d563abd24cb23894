#pragma once

#include <memory>
#include <string>

#include "tests/vm/guest_fixture.h"
#include "tests/vm/support/file_client.h"

namespace corvane::vm {

/// Tests of the guest's files, with one host at the channel. They close what they open: that the
/// agent answers and has as many descriptors as before is checked after each.
class FileTest : public SharedVsockGuestTest {
 protected:
    using Arguments = FileClient::Arguments;
    using Direction = FileClient::Direction;
    using Handle = FileClient::Handle;

    void SetUp() override;
    void TearDown() override;

    FileClient& files() { return *files_; }
    HostClient& host() { return *host_; }
    /// The host leaves, and another one takes its place.
    void replaceHost();
    /// Starts the agent anew, after the commands of its environment; it serves the test's host when
    /// this returns. The usual environment comes back with the end of the test.
    void restartAgent(const std::string& environment);

    /// The path of a file in a directory that is the test's own.
    static std::string path(const std::string& name);
    /// Makes a file by the guest's shell; returns its path.
    std::string makeFile(const std::string& name, const std::string& text);
    /// Makes a file of random bytes; returns its checksum.
    std::string makeRandomFile(const std::string& name, std::size_t size);
    /// What a file holds, as the guest's shell sees it: text without a final line feed.
    std::string contentOf(const std::string& filePath);
    std::string checksumOf(const std::string& filePath);

    int countDescriptors();
    /// Memory that the agent has to itself.
    long privateKibibytes();
    /// Waits until it is no more than this; throws HangError when it does not come to that.
    void awaitPrivateKibibytes(long limit);
    void expectAnAnswer();

 private:
    void connect();

    std::unique_ptr<HostClient> host_;
    std::unique_ptr<FileClient> files_;
    int descriptors_ = 0;
    bool restarted_ = false;
};

}  // namespace corvane::vm
