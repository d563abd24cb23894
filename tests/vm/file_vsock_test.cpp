#include <iostream>
#include <string>
#include <vector>

#include "tests/vm/exec_fixture.h"
#include "tests/vm/file_fixture.h"
#include "tests/vm/support/checksum.h"

namespace corvane::vm {
namespace {

class FilesOverVsock : public FileTest {
 protected:
    /// What a listener receives that is sent the rest of a file.
    std::string receive(Handle handle, const Arguments& further = {}) {
        files().startTransfer(Direction::read, handle, vsockPeer().listen(), further);
        vsockPeer().awaitConnection();
        return vsockPeer().receiveAll();
    }

    /// Sends a file these bytes, and the end.
    FileClient::Transfer send(Handle handle, std::string_view bytes,
                              const Arguments& further = {}) {
        files().startTransfer(Direction::write, handle, vsockPeer().listen(), further);
        vsockPeer().awaitConnection();
        vsockPeer().send(bytes);
        vsockPeer().finishSending();
        return files().awaitTransfer();
    }

    /// Orders a transfer and waits for the connection.
    void start(Direction direction, Handle handle) {
        files().startTransfer(direction, handle, vsockPeer().listen());
        vsockPeer().awaitConnection();
    }

    /// A transfer that went wrong has taken nothing with it: the agent answers, with as many
    /// descriptors as before, and the file's handle is good.
    void expectNoHarm(Handle handle, int descriptors) {
        expectAnAnswer();
        EXPECT_EQ(countDescriptors(), descriptors);
        EXPECT_EQ(files().refusalOf("guest-file-seek",
                                    {{"handle", handle}, {"offset", 0}, {"whence", "set"}}),
                  "");
    }

    /// Each way to say how large the buffer is to be that a transfer can be made with.
    static std::vector<Arguments> bufferSizes() {
        return {{},
                {{"buffer-size", 0}},
                {{"buffer-size", 1}},
                {{"buffer-size", 4096}},
                {{"buffer-size", 1024 * 1024}}};
    }

    static constexpr std::size_t largeSize = 64 * 1024 * 1024;
};

TEST_F(FilesOverVsock, SixtyFourMebibytesReachTheHost) {
    const std::string checksum = makeRandomFile("large", largeSize);
    shell().check("mkfifo " + path("received") + "; vsock-host receive 71000 " + path("received"));
    const Handle handle = files().open(path("large"));
    files().startTransfer(Direction::read, handle, 71000);
    EXPECT_EQ(checksumOf(path("received")), checksum);
    const FileClient::Transfer transfer = files().awaitTransfer();
    EXPECT_EQ(transfer.count, largeSize);
    EXPECT_FALSE(transfer.eof);
    files().close(handle);
}

TEST_F(FilesOverVsock, SixtyFourMebibytesReachTheGuest) {
    const std::string checksum = makeRandomFile("large", largeSize);
    shell().check("vsock-host send 71001 " + path("large"));
    const Handle handle = files().open(path("written"), "w");
    files().startTransfer(Direction::write, handle, 71001);
    const FileClient::Transfer transfer = files().awaitTransfer();
    EXPECT_EQ(transfer.count, largeSize);
    EXPECT_FALSE(transfer.eof);
    EXPECT_EQ(checksumOf(path("written")), checksum);
    files().close(handle);
}

TEST_F(FilesOverVsock, EveryBufferSizeCarriesTheBytesAsTheyAre) {
    const std::string bytes = randomBytes(20'000);
    for (const Arguments& size : bufferSizes()) {
        const Handle handle = files().open(path("file"), "w+");
        EXPECT_EQ(send(handle, bytes, size).count, bytes.size()) << size;
        EXPECT_EQ(checksumOf(path("file")), sha256(bytes)) << size;
        files().close(handle);

        const Handle again = files().open(path("file"));
        EXPECT_TRUE(receive(again, size) == bytes) << size;
        EXPECT_EQ(files().awaitTransfer().count, bytes.size()) << size;
        files().close(again);
    }
}

TEST_F(FilesOverVsock, ABufferThatCannotBeIsRefusedOnceTheConnectionIsMade) {
    const Handle handle = files().open(makeFile("text", "hello"), "r+");
    const int descriptors = countDescriptors();
    for (const Direction direction : {Direction::read, Direction::write}) {
        files().startTransfer(direction, handle, vsockPeer().listen(), {{"buffer-size", -1}});
        vsockPeer().awaitConnection();
        EXPECT_EQ(files().awaitRefusal(), "failed to allocate buffer");
        EXPECT_EQ(vsockPeer().receiveAll(), "");
        expectNoHarm(handle, descriptors);
    }
    files().close(handle);
    EXPECT_EQ(contentOf(path("text")), "hello");
}

TEST_F(FilesOverVsock, TheEndOfTheFileIsWhatTheStreamKnowsOfIt) {
    const Handle empty = files().open(path("empty"), "w+");
    EXPECT_EQ(receive(empty), "");
    FileClient::Transfer transfer = files().awaitTransfer();
    EXPECT_EQ(transfer.count, 0U);
    EXPECT_FALSE(transfer.eof);
    files().close(empty);

    const Handle handle = files().open(makeFile("text", "hello"));
    EXPECT_TRUE(files().read(handle).eof);
    EXPECT_EQ(receive(handle), "");
    transfer = files().awaitTransfer();
    EXPECT_EQ(transfer.count, 0U);
    EXPECT_TRUE(transfer.eof);
    files().close(handle);
}

TEST_F(FilesOverVsock, AFileIsSentFromWhereItsDescriptorStands) {
    const std::string bytes = randomBytes(20'000);
    files().store(path("file"), bytes, bytes.size());
    const Handle handle = files().open(path("file"));
    files().read(handle, 10);
    // The stream has read more than that, in one go: it is not sent.
    const std::size_t place = std::stoul(shell().check(
        "cd /proc/$(service pid)/fd; for number in *; do case $(readlink $number) in " +
        path("file") + ") sed -n 's/^pos:.//p' ../fdinfo/$number;; esac; done"));
    EXPECT_GT(place, 10U);
    EXPECT_TRUE(receive(handle) == bytes.substr(place));
    EXPECT_EQ(files().awaitTransfer().count, bytes.size() - place);
    files().close(handle);
}

TEST_F(FilesOverVsock, ThePartsOfAFileAreWrittenOneBehindTheOther) {
    const Handle handle = files().open(path("file"), "w");
    EXPECT_EQ(send(handle, "one, ").count, 5U);
    EXPECT_EQ(send(handle, "two").count, 3U);
    files().close(handle);
    EXPECT_EQ(contentOf(path("file")), "one, two");
}

TEST_F(FilesOverVsock, AHostThatSendsNothingLeavesTheFileAsItIs) {
    const Handle handle = files().open(makeFile("text", "unchanged"), "r+");
    const int descriptors = countDescriptors();
    start(Direction::write, handle);
    vsockPeer().close();
    const FileClient::Transfer transfer = files().awaitTransfer();
    EXPECT_EQ(transfer.count, 0U);
    EXPECT_FALSE(transfer.eof);
    expectNoHarm(handle, descriptors);
    files().close(handle);
    EXPECT_EQ(contentOf(path("text")), "unchanged");
}

TEST_F(FilesOverVsock, AHostThatStopsSendingHasSentWhatCame) {
    const std::string bytes = randomBytes(100'000);
    const Handle handle = files().open(path("file"), "w");
    const int descriptors = countDescriptors();
    start(Direction::write, handle);
    vsockPeer().send(bytes);
    awaitInGuest("stat -c %s " + path("file"), std::to_string(bytes.size()));
    vsockPeer().close();
    EXPECT_EQ(files().awaitTransfer().count, bytes.size());
    expectNoHarm(handle, descriptors);
    files().close(handle);
    EXPECT_EQ(checksumOf(path("file")), sha256(bytes));
}

TEST_F(FilesOverVsock, AHostThatVanishesWhileItIsSentAFileBreaksTheTransfer) {
    const Handle handle = files().open("/dev/zero");
    const int descriptors = countDescriptors();
    for (const std::size_t received : {std::size_t{0}, std::size_t{1'000'000}}) {
        start(Direction::read, handle);
        vsockPeer().receive(received);
        // What it was sent and has not read is lost.
        vsockPeer().close();
        const std::string refusal = files().awaitRefusal();
        // The write that it cuts short is no failure to the system: that has no error to tell of.
        EXPECT_TRUE(refusal == "write error: Broken pipe" ||
                    refusal == "write error: Connection reset by peer" ||
                    refusal == "write error: Success")
            << refusal;
        std::cout << "a host that vanishes after " << received << " bytes: " << refusal << "\n";
        expectAnAnswer();
        EXPECT_EQ(countDescriptors(), descriptors);
        EXPECT_EQ(files().read(handle, 2).bytes, std::string(2, '\0'));
    }
    files().close(handle);
}

TEST_F(FilesOverVsock, AHostThatLeavesWithoutReadingASmallFileWasSentAllOfIt) {
    makeRandomFile("small", 10'000);
    const Handle handle = files().open(path("small"));
    const int descriptors = countDescriptors();
    start(Direction::read, handle);
    EXPECT_EQ(files().awaitTransfer().count, 10'000U);
    vsockPeer().close();
    expectNoHarm(handle, descriptors);
    files().close(handle);
}

TEST_F(FilesOverVsock, NobodyListening) {
    const Handle handle = files().open(makeFile("text", "hello"), "r+");
    const int descriptors = countDescriptors();
    const unsigned port = vsockPeer().listen();
    vsockPeer().close();
    for (const Direction direction : {Direction::read, Direction::write}) {
        files().startTransfer(direction, handle, port);
        EXPECT_EQ(files().awaitRefusal(), "failed to connect to 2:" + std::to_string(port) +
                                              " with error: Connection reset by peer");
        expectNoHarm(handle, descriptors);
    }
    EXPECT_EQ(files().refusalOf("mirel-guest-file-vsock-read",
                                {{"handle", handle}, {"cid", 77}, {"port", 4294967294}}),
              "failed to connect to 77:4294967294 with error: No such device");
    expectNoHarm(handle, descriptors);
    files().close(handle);
}

TEST_F(FilesOverVsock, AFullDeviceBreaksTheTransfer) {
    const Handle handle = files().open("/dev/full", "w");
    const int descriptors = countDescriptors();
    start(Direction::write, handle);
    vsockPeer().send("text");
    EXPECT_EQ(files().awaitRefusal(), "write error: No space left on device");
    expectAnAnswer();
    EXPECT_EQ(countDescriptors(), descriptors);
    files().close(handle);
}

TEST_F(FilesOverVsock, ADiskThatBecomesFullHoldsWhatCameBeforeThat) {
    shell().check("mkdir " + path("disk") + "; mount -t tmpfs -o size=64k tmpfs " + path("disk"));
    const std::string file = path("disk/file");
    const std::string bytes = randomBytes(200'000);
    const Handle handle = files().open(file, "w");
    const int descriptors = countDescriptors();
    start(Direction::write, handle);
    vsockPeer().send(bytes);
    // A write that takes a part of the bytes is no failure to the system.
    const std::string refusal = files().awaitRefusal();
    EXPECT_TRUE(refusal == "write error: No space left on device" ||
                refusal == "write error: Success")
        << refusal;
    expectNoHarm(handle, descriptors);
    files().close(handle);
    const std::size_t size = std::stoul(shell().check("stat -c %s " + file));
    EXPECT_GT(size, 0U);
    EXPECT_EQ(checksumOf(file), sha256(bytes.substr(0, size)));
    shell().check("umount " + path("disk"));
}

TEST_F(FilesOverVsock, TheNextRequestIsAnsweredAfterTheTransfer) {
    const Handle handle = files().open(path("file"), "w");
    start(Direction::write, handle);
    host().send("{\"execute\":\"guest-ping\"}\n");
    vsockPeer().send("text");
    awaitInGuest("cat " + path("file"), "text");
    vsockPeer().finishSending();
    EXPECT_EQ(files().awaitTransfer().count, 4U);
    EXPECT_EQ(host().receiveLine(), R"({"return":{}})");
    files().close(handle);
}

TEST_F(FilesOverVsock, ADirectoryThatCannotBeReadIsSentAsNothing) {
    const Handle handle = files().open(path(""));
    EXPECT_EQ(receive(handle), "");
    EXPECT_EQ(files().awaitTransfer().count, 0U);
    files().close(handle);
}

class FilesWithoutVsock : public SharedGuestTest {};

TEST_F(FilesWithoutVsock, AreNotTransferredAndStayOpen) {
    HostClient host = synchronisedHost();
    FileClient files(host);
    const FileClient::Handle handle = files.open("/etc/passwd");
    for (const char* command : {"mirel-guest-file-vsock-read", "mirel-guest-file-vsock-write"}) {
        EXPECT_EQ(files.refusalOf(command, {{"handle", handle}, {"cid", 2}, {"port", 70000}}),
                  "no vsock transport available");
    }
    EXPECT_TRUE(files.read(handle).bytes.starts_with("root:"));
    files.close(handle);
}

}  // namespace
}  // namespace corvane::vm
