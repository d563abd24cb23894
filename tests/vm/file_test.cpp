#include <string>

#include "tests/vm/exec_fixture.h"
#include "tests/vm/file_fixture.h"
#include "tests/vm/support/checksum.h"

namespace corvane::vm {
namespace {

constexpr char badOpen[] = "invalid path or mode";
constexpr char badHandle[] = "handle is not a valid file";

class GuestFiles : public FileTest {
 protected:
    std::string refusedOpen(const std::string& filePath, const std::string& mode) {
        return files().refusalOf("guest-file-open", {{"path", filePath}, {"mode", mode}});
    }

    /// What a file with "old text" holds after "NEW" was written in this mode.
    std::string afterWritingIn(const std::string& mode) {
        const std::string file = makeFile("old", "old text");
        const Handle handle = files().open(file, mode);
        files().write(handle, "NEW");
        files().close(handle);
        return contentOf(file);
    }
};

TEST_F(GuestFiles, ModesAreTheCLibrarys) {
    EXPECT_EQ(afterWritingIn("w"), "NEW");
    EXPECT_EQ(afterWritingIn("wb"), "NEW");
    EXPECT_EQ(afterWritingIn("w+"), "NEW");
    EXPECT_EQ(afterWritingIn("a"), "old textNEW");
    EXPECT_EQ(afterWritingIn("a+b"), "old textNEW");
    EXPECT_EQ(afterWritingIn("r+"), "NEW text");
    EXPECT_EQ(afterWritingIn("rb+"), "NEW text");
    for (const char* mode : {"", "q", "x", "+", "R"}) {
        EXPECT_EQ(refusedOpen(path("old"), mode), badOpen) << mode;
    }
}

TEST_F(GuestFiles, OnlyModesThatMakeAFileOpenAMissingOne) {
    for (const char* mode : {"r", "rb", "r+"}) {
        EXPECT_EQ(refusedOpen(path("missing"), mode), badOpen) << mode;
    }
    EXPECT_EQ(files().refusalOf("guest-file-open", {{"path", path("missing")}}), badOpen);
    EXPECT_EQ(refusedOpen(path("no/such/directory"), "w"), badOpen);
    EXPECT_EQ(refusedOpen("", "w"), badOpen);
    for (const char* mode : {"w", "a", "w+", "a+", "wx"}) {
        const std::string file = path(std::string("made-by-") + mode);
        files().close(files().open(file, mode));
        EXPECT_EQ(shell().check("wc -c < " + file), "0") << mode;
    }
    EXPECT_EQ(refusedOpen(path("made-by-wx"), "wx"), badOpen) << "it exists";
}

TEST_F(GuestFiles, WithoutAModeAFileIsOpenedForReading) {
    const Handle handle = files().open(makeFile("text", "hello"));
    EXPECT_EQ(files().refusalOf("guest-file-write", {{"handle", handle}, {"buf-b64", "eA=="}}),
              "fwrite error 9");
    EXPECT_EQ(files().read(handle, 5).bytes, "hello");
    // The stream remembers that something failed, so that its end passes for a failure, too.
    EXPECT_EQ(files().refusalOf("guest-file-read", {{"handle", handle}}), "fread error 0");
    files().close(handle);
}

TEST_F(GuestFiles, AHandleIsGoodForOneFileAndUntilItIsClosed) {
    const Handle first = files().open(makeFile("first", "1"));
    const Handle second = files().open(makeFile("second", "2"));
    EXPECT_NE(first, second);
    EXPECT_EQ(files().read(second).bytes, "2");
    EXPECT_EQ(files().read(first).bytes, "1");
    files().close(first);
    for (const Handle handle : {first, Handle{0}, Handle{1}, second + 1, ~Handle{0}}) {
        const Arguments arguments{{"handle", handle}, {"buf-b64", ""}, {"offset", 0},
                                  {"whence", "set"},  {"cid", 2},      {"port", 70000}};
        for (const char* command :
             {"guest-file-close", "guest-file-read", "guest-file-write", "guest-file-seek",
              "guest-file-flush", "mirel-guest-file-vsock-read", "mirel-guest-file-vsock-write"}) {
            EXPECT_EQ(files().refusalOf(command, arguments), badHandle) << command << handle;
        }
    }
    EXPECT_EQ(files().read(second).eof, true);
    files().close(second);
}

TEST_F(GuestFiles, WhatIsWrongWithARequestIsSaid) {
    const Handle handle = files().open(path("new"), "w+");
    const auto refusal = [&](const char* command, Arguments arguments) {
        arguments.insert({{"handle", handle}});
        return files().refusalOf(command, arguments);
    };
    EXPECT_EQ(parse(host().request(R"({"execute":"guest-file-open"})")),
              errorResponse("GenericError", "missing arguments"));
    EXPECT_EQ(refusal("guest-file-open", {{"path", 1}}), "path is not a string");
    EXPECT_EQ(refusal("guest-file-open", {{"path", "/"}, {"mode", nullptr}}),
              "mode is not a string");
    EXPECT_EQ(files().refusalOf("guest-file-close", {{"handle", "1"}}), "handle is not a number");
    EXPECT_EQ(refusal("guest-file-read", {{"count", "1"}}), "count is not a number");
    EXPECT_EQ(refusal("guest-file-write", {}), "buf-b64 is not a string");
    EXPECT_EQ(refusal("guest-file-write", {{"buf-b64", "aGVs\nbG8="}}), "unable to decode buf-b64");
    EXPECT_EQ(refusal("guest-file-write", {{"buf-b64", "aGVsbG8="}, {"count", 6}}),
              "requested write of 6 bytes, but provided buffer is only 5 bytes");
    EXPECT_EQ(refusal("guest-file-seek", {{"whence", "set"}}), "offset is not a number");
    EXPECT_EQ(refusal("guest-file-seek", {{"offset", 0}, {"whence", "SET"}}),
              "unknown whence value");
    EXPECT_EQ(refusal("guest-file-seek", {{"offset", 0}}), "whence is not a number or string");
    EXPECT_EQ(refusal("guest-file-seek", {{"offset", 0}, {"whence", 7}}), "fseek error 22");
    EXPECT_EQ(refusal("guest-file-seek", {{"offset", -1}, {"whence", "set"}}), "fseek error 22");
    EXPECT_EQ(refusal("mirel-guest-file-vsock-read", {}), "cid is not a number");
    EXPECT_EQ(refusal("mirel-guest-file-vsock-read", {{"cid", 2}}), "port is not a number");
    EXPECT_EQ(refusal("mirel-guest-file-vsock-write",
                      {{"cid", 2}, {"port", 1}, {"buffer-size", nullptr}}),
              "buffer-size is not a number");
    files().close(handle);
    EXPECT_EQ(contentOf(path("new")), "");
}

TEST_F(GuestFiles, FilesAroundTheBuffersSizesComeBackAsTheyWere) {
    for (const std::size_t size : {0U, 1U, 4095U, 4096U, 4097U, 65535U, 65536U, 65537U}) {
        const std::string bytes = randomBytes(size);
        for (const std::size_t piece : {1000U, 4096U, 100'000U}) {
            files().store(path("stored"), bytes, piece);
            EXPECT_EQ(checksumOf(path("stored")), sha256(bytes)) << size << " by " << piece;
            EXPECT_TRUE(files().fetch(path("stored"), piece) == bytes) << size << " by " << piece;
        }
    }
}

TEST_F(GuestFiles, EightMegabytesComeBackAsTheyWere) {
    const std::string bytes = randomBytes(8'000'000);
    for (const std::size_t piece : {48U * 1024, 1024U * 1024}) {
        files().store(path("stored"), bytes, piece);
        EXPECT_EQ(checksumOf(path("stored")), sha256(bytes)) << piece;
        EXPECT_TRUE(files().fetch(path("stored"), piece) == bytes) << piece;
    }
    // All of it with one request.
    const Handle handle = files().open(path("stored"));
    EXPECT_TRUE(files().read(handle, bytes.size()).bytes == bytes);
    files().close(handle);
}

TEST_F(GuestFiles, FourThousandBytesAndSomeAreReadWithoutACount) {
    makeRandomFile("random", 5000);
    const Handle handle = files().open(path("random"));
    EXPECT_EQ(files().read(handle).bytes.size(), 4096U);
    EXPECT_EQ(files().read(handle).bytes.size(), 904U);
    files().close(handle);
}

TEST_F(GuestFiles, TheEndIsSeenByReadingBeyondItAndForgottenBySeeking) {
    const Handle handle = files().open(makeFile("ten", "0123456789"));
    const auto expectPiece = [&](std::uint64_t count, const char* bytes, bool eof) {
        const FileClient::Piece piece = files().read(handle, count);
        EXPECT_EQ(piece.bytes, bytes) << count;
        EXPECT_EQ(piece.eof, eof) << count;
    };
    expectPiece(0, "", false);
    expectPiece(4, "0123", false);
    expectPiece(6, "456789", false);
    expectPiece(1, "", true);
    expectPiece(0, "", true);
    EXPECT_EQ(files().seek(handle, -1, "end").eof, false);
    expectPiece(4096, "9", true);
    expectPiece(4096, "", true);
    files().close(handle);
}

TEST_F(GuestFiles, EveryWayToSeekComesToTheSamePlace) {
    const Handle handle = files().open(makeFile("ten", "0123456789"));
    const auto seek = [&](std::int64_t offset, const boost::json::value& whence) {
        return files().seek(handle, offset, whence).position;
    };
    EXPECT_EQ(seek(4, "set"), 4U);
    EXPECT_EQ(seek(-3, "cur"), 1U);
    EXPECT_EQ(seek(-1, "end"), 9U);
    EXPECT_EQ(files().read(handle).bytes, "9");
    EXPECT_EQ(seek(4, 0), 4U);
    EXPECT_EQ(seek(2, 1), 6U);
    EXPECT_EQ(seek(1, true), 7U) << "the number 1";
    EXPECT_EQ(files().read(handle, 1).bytes, "7");
    EXPECT_EQ(seek(0, 2), 10U);
    EXPECT_EQ(seek(90, "end"), 100U) << "beyond the end there is nothing to read";
    EXPECT_EQ(files().read(handle).bytes, "");
    files().close(handle);
}

TEST_F(GuestFiles, WhatIsWrittenIsInTheFileWhenItIsFlushed) {
    const Handle handle = files().open(path("new"), "w");
    files().ask("guest-file-write", {{"handle", handle}, {"buf-b64", "aGVsbG8="}, {"count", 3}});
    EXPECT_EQ(contentOf(path("new")), "");
    files().flush(handle);
    EXPECT_EQ(contentOf(path("new")), "hel");
    files().write(handle, "icopter");
    EXPECT_EQ(contentOf(path("new")), "hel");
    files().seek(handle, 0, "set");
    EXPECT_EQ(contentOf(path("new")), "helicopter") << "seeking flushes";
    files().write(handle, "H");
    files().close(handle);
    EXPECT_EQ(contentOf(path("new")), "Helicopter");
}

TEST_F(GuestFiles, AHandleOutlivesItsHost) {
    const Handle reader = files().open(makeFile("text", "0123456789"));
    const Handle writer = files().open(path("new"), "w");
    EXPECT_EQ(files().read(reader, 4).bytes, "0123");
    files().write(writer, "begun, ");
    replaceHost();
    EXPECT_EQ(files().read(reader).bytes, "456789");
    files().write(writer, "finished");
    files().close(reader);
    files().close(writer);
    EXPECT_EQ(contentOf(path("new")), "begun, finished");
}

TEST_F(GuestFiles, AProgramDoesNotInheritThem) {
    const Handle file = files().open(path("new"), "w");
    const Handle device = files().open("/dev/zero");
    // The flags are octal: see fcntl(2), O_CLOEXEC.
    EXPECT_EQ(shell().check("cd /proc/$(service pid)/fdinfo; for number in *; do "
                            "[ $number -le 2 ] || grep -q '^flags:.0[2367]......$' $number || "
                            "readlink ../fd/$number; done"),
              "");
    ExecClient exec(host());
    exec.awaitExit(exec.start(
        {{"path", "/usr/bin/list_descriptors"}, {"mirel-stdout", makeFile("listing", "")}}));
    EXPECT_EQ(contentOf(path("listing")), "0\n1\n2");
    files().close(file);
    files().close(device);
}

}  // namespace
}  // namespace corvane::vm
