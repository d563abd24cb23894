#include <string>

#include "tests/vm/file_fixture.h"

namespace corvane::vm {
namespace {

/// What can be opened and is no regular file.
class FilesThatAreNone : public FileTest {
 protected:
    std::string refusal(const char* command, Handle handle) {
        return files().refusalOf(command, {{"handle", handle}, {"buf-b64", "dGV4dA=="}});
    }

    std::string makeFifo() {
        shell().check("mkfifo " + path("fifo"));
        return path("fifo");
    }

    /// The number of a process's controlling terminal, 0 for none: see proc(5), tty_nr.
    std::string controllingTerminalOf(const std::string& pid) {
        return shell().check("sed 's/.*) //' /proc/" + pid + "/stat | cut -d ' ' -f 5");
    }
};

TEST_F(FilesThatAreNone, ADirectoryOpensAndCannotBeRead) {
    const Handle handle = files().open(path(""));
    EXPECT_EQ(refusal("guest-file-read", handle), "fread error 21");
    EXPECT_EQ(refusal("guest-file-read", handle), "fread error 21");
    files().close(handle);
    EXPECT_EQ(files().refusalOf("guest-file-open", {{"path", path("")}, {"mode", "w"}}),
              "invalid path or mode");
}

TEST_F(FilesThatAreNone, AFifoIsReadToItsWritersEnd) {
    const std::string fifo = makeFifo();
    shell().check("(printf one; printf two) > " + fifo + " &");
    const Handle handle = files().open(fifo);
    const FileClient::Piece piece = files().read(handle, 100);
    EXPECT_EQ(piece.bytes, "onetwo");
    EXPECT_TRUE(piece.eof);
    EXPECT_EQ(files().refusalOf("guest-file-seek",
                                {{"handle", handle}, {"offset", 0}, {"whence", "set"}}),
              "fseek error 29");
    files().close(handle);
}

TEST_F(FilesThatAreNone, AFifoWithoutAReaderBreaksItsWriterAndNotTheAgent) {
    const std::string fifo = makeFifo();
    shell().check("cat " + fifo + " > " + path("received") + " & echo $! > " + path("reader"));
    const Handle handle = files().open(fifo, "w");
    files().write(handle, "in time");
    files().flush(handle);
    awaitInGuest("cat " + path("received"), "in time");
    shell().check("kill $(cat " + path("reader") + ")");
    awaitInGuest(
        "grep -c '^State:.[^Z]' /proc/$(cat " + path("reader") + ")/status 2>/dev/null || true",
        "");
    files().write(handle, "too late");
    EXPECT_EQ(refusal("guest-file-flush", handle), "fflush error 32");
    files().close(handle);
    EXPECT_EQ(contentOf(path("received")), "in time");
}

TEST_F(FilesThatAreNone, ADeviceThatIsAlwaysFullSaysSoWhenItIsToldToTake) {
    const Handle flushed = files().open("/dev/full", "w");
    EXPECT_EQ(files().write(flushed, "text").count, 4U);
    EXPECT_EQ(refusal("guest-file-flush", flushed), "fflush error 28");
    EXPECT_EQ(files().refusalOf("guest-file-write",
                                {{"handle", flushed}, {"buf-b64", std::string(100'000, 'A')}}),
              "fwrite error 28");
    files().refusalOf("guest-file-close", {{"handle", flushed}});

    const Handle closed = files().open("/dev/full", "r+");
    files().write(closed, "text");
    EXPECT_EQ(refusal("guest-file-close", closed), "fclose error 28");
    EXPECT_EQ(refusal("guest-file-close", closed), "handle is not a valid file");
}

TEST_F(FilesThatAreNone, ATerminalDoesNotBecomeTheAgentsOwn) {
    // Only the leader of a session can get a controlling terminal; then any that it opens is one.
    const std::string terminal = "/dev/tty5";
    EXPECT_NE(shell().check("setsid sh -c 'exec 3<>" + terminal +
                            "; sed \"s/.*) //\" /proc/$$/stat | cut -d \" \" -f 5'"),
              "0")
        << "a terminal that nobody else has";
    restartAgent("exec setsid /usr/bin/corvane </dev/null >>/run/log/agent.output 2>&1");
    const std::string pid = shell().check("service pid");
    ASSERT_EQ(shell().check("sed 's/.*) //' /proc/" + pid + "/stat | cut -d ' ' -f 4"), pid)
        << "it leads its session";

    for (const char* mode : {"r+", "w", "a", "r"}) {
        const Handle handle = files().open(terminal, mode);
        EXPECT_EQ(shell().check("ls -l /proc/" + pid + "/fd | grep -c " + terminal), "1");
        EXPECT_EQ(controllingTerminalOf(pid), "0") << mode;
        if (*mode != 'r') {
            files().write(handle, "hello");
        }
        files().close(handle);
        EXPECT_EQ(controllingTerminalOf(pid), "0") << mode;
    }
}

TEST_F(FilesThatAreNone, FilesOfTheKernelHaveNoSizeAndAreReadToTheirEnd) {
    const FileClient::Handle handle = files().open("/proc/meminfo");
    const FileClient::Piece piece = files().read(handle, ~std::uint64_t{0});
    EXPECT_TRUE(piece.bytes.starts_with("MemTotal:"));
    EXPECT_GT(piece.bytes.size(), 500U);
    EXPECT_TRUE(piece.eof);
    files().close(handle);
}

}  // namespace
}  // namespace corvane::vm
