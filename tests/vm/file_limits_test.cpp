#include <iostream>
#include <string>
#include <vector>

#include "tests/vm/exec_fixture.h"
#include "tests/vm/file_fixture.h"
#include "tests/vm/support/base64.h"
#include "tests/vm/support/checksum.h"

namespace corvane::vm {
namespace {

/// A file system of one mebibyte.
class FilesOnAFullDisk : public FileTest {
 protected:
    void SetUp() override {
        FileTest::SetUp();
        shell().check("mkdir " + path("disk") + "; mount -t tmpfs -o size=1m tmpfs " +
                      path("disk"));
    }
    void TearDown() override {
        if (HasFailure()) {
            shell().check("service restart");  // it may hold a file there
            host().synchronise();
        }
        shell().check("umount " + path("disk"));
        FileTest::TearDown();
    }

    void fill() { shell().run("dd if=/dev/zero of=" + path("disk/ballast") + " bs=4k"); }
    void makeRoom() { shell().check("rm " + path("disk/ballast")); }

    std::string refusedWrite(Handle handle, std::string_view bytes) {
        return files().refusalOf("guest-file-write",
                                 {{"handle", handle}, {"buf-b64", encodeBase64(bytes)}});
    }
    std::string refusal(const char* command, Handle handle) {
        return files().refusalOf(command, {{"handle", handle}});
    }
};

TEST_F(FilesOnAFullDisk, WriteFlushAndCloseSaySo) {
    const Handle written = files().open(path("disk/written"), "w");
    const Handle flushed = files().open(path("disk/flushed"), "w");
    const Handle closed = files().open(path("disk/closed"), "w");
    fill();
    EXPECT_EQ(refusedWrite(written, std::string(100'000, 'x')), "fwrite error 28");
    files().write(flushed, "text");
    EXPECT_EQ(refusal("guest-file-flush", flushed), "fflush error 28");
    files().write(closed, "text");
    EXPECT_EQ(refusal("guest-file-close", closed), "fclose error 28");
    EXPECT_EQ(refusal("guest-file-close", closed), "handle is not a valid file");

    makeRoom();
    for (const Handle handle : {written, flushed}) {
        files().seek(handle, 0, "set");
        files().write(handle, "room again");
        files().flush(handle);
        files().close(handle);
    }
    EXPECT_EQ(contentOf(path("disk/written")), "room again");
    EXPECT_EQ(contentOf(path("disk/flushed")), "room again");
}

TEST_F(FilesOnAFullDisk, WhatWasFlushedIsThereAndTheRestCanBeWrittenAgainWhenThereIsRoom) {
    fill();
    shell().check("truncate -s 512k " + path("disk/ballast"));
    const std::string bytes = randomBytes(1'000'000);
    constexpr std::size_t pieceSize = 30'000;
    const Handle handle = files().open(path("disk/file"), "w");
    std::size_t flushed = 0;
    std::string refused;
    while (refused.empty() && flushed < bytes.size()) {
        refused = refusedWrite(handle, bytes.substr(flushed, pieceSize));
        if (refused.empty()) {
            refused = refusal("guest-file-flush", handle);
        }
        flushed += refused.empty() ? pieceSize : 0;
    }
    EXPECT_TRUE(refused == "fwrite error 28" || refused == "fflush error 28") << refused;
    EXPECT_GT(flushed, 400'000U);
    EXPECT_EQ(shell().check("head -c " + std::to_string(flushed) + " " + path("disk/file") +
                            " | sha256sum | cut -d ' ' -f 1"),
              sha256(bytes.substr(0, flushed)));

    makeRoom();
    files().seek(handle, static_cast<std::int64_t>(flushed), "set");
    files().write(handle, bytes.substr(flushed));
    files().close(handle);
    EXPECT_EQ(checksumOf(path("disk/file")), sha256(bytes));
}

class FilesWithoutLimits : public FileTest {
 protected:
    static constexpr std::uint64_t hugeCount = std::uint64_t{1} << 62;

    void TearDown() override {
        setOvercommitment(0);
        FileTest::TearDown();
    }

    /// See proc(5), /proc/sys/vm/overcommit_memory: with 1 the system promises any memory, and
    /// kills somebody when it comes to keeping the promise; 0 is usual.
    void setOvercommitment(int mode) {
        shell().check("echo " + std::to_string(mode) + " > /proc/sys/vm/overcommit_memory");
    }

    /// A read that memory does not suffice for harms neither the agent nor anybody else, and the
    /// agent gives back what it took.
    void expectTooMuchFor(Handle handle, std::uint64_t count) {
        const std::string pid = shell().check("service pid");
        const long before = privateKibibytes();
        EXPECT_EQ(files().refusalOf("guest-file-read", {{"handle", handle}, {"count", count}}),
                  "out of memory");
        expectAnAnswer();
        EXPECT_EQ(shell().check("service pid"), pid);
        EXPECT_EQ(shell().check("dmesg | grep -ci -e 'out of memory' -e 'killed process' || true"),
                  "0");
        EXPECT_NO_THROW(awaitPrivateKibibytes(before + 512));
        std::cout << "private memory: " << before << " KiB, after a read that was too large "
                  << privateKibibytes() << " KiB\n";
    }

    /// A fresh agent that has what it allocates once.
    void refreshAgent() {
        restartAgent("");
        const Handle handle = files().open("/dev/zero");
        for (int count = 0; count < 3; ++count) {
            files().read(handle, 100'000);
        }
        files().close(handle);
    }
};

TEST_F(FilesWithoutLimits, AnEndlessSourceEndsInAnErrorAndGivesTheMemoryBack) {
    refreshAgent();
    const Handle handle = files().open("/dev/zero");
    expectTooMuchFor(handle, hugeCount);
    setOvercommitment(1);
    expectTooMuchFor(handle, ~std::uint64_t{0});
    EXPECT_EQ(files().read(handle, 3).bytes, std::string(3, '\0'));
    files().close(handle);
}

TEST_F(FilesWithoutLimits, AFileThatIsLargerThanTheMemoryIsReadFromWhereItStood) {
    refreshAgent();
    const Handle handle = files().open(makeFile("large", "0123456789"));
    shell().check("truncate -s 5G " + path("large"));
    EXPECT_EQ(files().read(handle, 4).bytes, "0123");
    expectTooMuchFor(handle, hugeCount);
    EXPECT_EQ(files().read(handle, 6).bytes, "456789");
    files().close(handle);
}

TEST_F(FilesWithoutLimits, WhatManyReadsHaveTakenGoesBackWhenTheirHostHasGone) {
    refreshAgent();
    const long before = privateKibibytes();
    const Handle handle = files().open("/dev/zero");
    for (int count = 0; count < 10; ++count) {
        files().read(handle, 1 << 20);
    }
    files().close(handle);
    host().disconnect();
    EXPECT_NO_THROW(awaitPrivateKibibytes(before + 512));
    replaceHost();
}

TEST_F(FilesWithoutLimits, TheLargestCountIsAsGoodAsTheFilesSize) {
    const Handle handle = files().open(makeFile("ten", "0123456789"));
    const FileClient::Piece piece = files().read(handle, ~std::uint64_t{0});
    EXPECT_EQ(piece.bytes, "0123456789");
    EXPECT_TRUE(piece.eof);
    files().close(handle);
}

TEST_F(FilesWithoutLimits, PositionsBeyondFourGibibytesAreGood) {
    constexpr std::int64_t far = (std::int64_t{1} << 32) + 5;
    const Handle handle = files().open(path("sparse"), "w+");
    EXPECT_EQ(files().seek(handle, far, "set").position, static_cast<std::uint64_t>(far));
    files().write(handle, "far away");
    files().flush(handle);
    EXPECT_EQ(shell().check("stat -c %s " + path("sparse")), std::to_string(far + 8));
    EXPECT_EQ(shell().check("tail -c 8 " + path("sparse")), "far away");
    EXPECT_EQ(files().seek(handle, 0, "set").position, 0U);
    EXPECT_EQ(files().read(handle, 5).bytes, std::string(5, '\0'));
    EXPECT_EQ(files().seek(handle, -8, "end").position, static_cast<std::uint64_t>(far));
    EXPECT_EQ(files().read(handle).bytes, "far away");
    files().close(handle);
}

class ManyFiles : public FileTest {
 protected:
    /// A request for each of the handles.
    static std::vector<Arguments> eachOf(const std::vector<Handle>& handles) {
        std::vector<Arguments> requests;
        for (const Handle handle : handles) {
            requests.push_back({{"handle", handle}});
        }
        return requests;
    }
};

TEST_F(ManyFiles, TwoThousandAreOpenAtOnceAndNoneIsTakenForAnother) {
    constexpr int count = 2000;
    restartAgent("ulimit -Sn 4096");
    shell().check("cd " + path("") + "; i=0; while [ $i -lt " + std::to_string(count) +
                  " ]; do echo \"file $i\" > $i; i=$((i + 1)); done");
    const int before = countDescriptors();
    std::vector<Arguments> opens;
    for (int index = 0; index < count; ++index) {
        opens.push_back({{"path", path(std::to_string(index))}});
    }
    std::vector<Handle> handles;
    for (const auto& answer : files().askAll("guest-file-open", opens)) {
        handles.push_back(answer.at("return").to_number<Handle>());
    }
    EXPECT_EQ(countDescriptors(), before + count);

    int right = 0;
    for (const auto& answer : files().askAll("guest-file-read", eachOf(handles))) {
        const std::string text = decodeBase64(answer.at("return").at("buf-b64").as_string());
        right += text == "file " + std::to_string(right) + "\n" ? 1 : 0;
    }
    EXPECT_EQ(right, count);

    int closed = 0;
    for (const auto& answer : files().askAll("guest-file-close", eachOf(handles))) {
        closed += answer == parse(R"({"return":{}})") ? 1 : 0;
    }
    EXPECT_EQ(closed, count);
    EXPECT_EQ(countDescriptors(), before);
}

TEST_F(ManyFiles, WithoutADescriptorLeftTheAgentGoesOnAnswering) {
    constexpr int limit = 512;
    restartAgent("ulimit -Sn " + std::to_string(limit));
    const std::string file = path("random");
    const std::string checksum = makeRandomFile("random", 3'000'000);
    const int before = countDescriptors();
    std::vector<Handle> handles;
    int refused = 0;
    for (const auto& answer :
         files().askAll("guest-file-open", std::vector<Arguments>(limit, {{"path", file}}))) {
        if (const auto* handle = answer.as_object().if_contains("return")) {
            EXPECT_EQ(refused, 0) << "one was opened after another could not be";
            handles.push_back(handle->to_number<Handle>());
        } else {
            refused += answer == errorResponse("GenericError", "invalid path or mode") ? 1 : 0;
        }
    }
    EXPECT_EQ(static_cast<int>(handles.size()), limit - before);
    EXPECT_EQ(refused, before);

    expectAnAnswer();
    // So large that the agent looks at the machine's memory first.
    EXPECT_EQ(sha256(files().read(handles.front(), 3'000'000).bytes), checksum);
    EXPECT_EQ(files().refusalOf("mirel-guest-file-vsock-read",
                                {{"handle", handles.front()}, {"cid", 2}, {"port", 70000}}),
              "failed to create vsock socket with error: Too many open files");
    ExecClient exec(host());
    EXPECT_NE(exec.refusalOf("guest-exec", {{"path", "/bin/true"}, {"capture-output", true}}), "");

    files().askAll("guest-file-close", eachOf(handles));
    EXPECT_EQ(countDescriptors(), before);
    files().close(files().open(file));
    EXPECT_EQ(exec.run({{"path", "/bin/true"}}).exitCode, 0);
}

}  // namespace
}  // namespace corvane::vm
