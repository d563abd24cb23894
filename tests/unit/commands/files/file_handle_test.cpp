#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "commands/all_commands.h"
#include "commands/files/file_handle_table.h"
#include "core/descriptor_guard.h"
#include "tests/fakes/agent_thread.h"
#include "tests/fakes/child_process.h"
#include "tests/unit/commands/files/file_fixture.h"

namespace corvane {
namespace {

const std::array<FileCommand, 5> commandsWithHandle{fileClose, fileRead, fileWrite, fileSeek,
                                                    fileFlush};

/// What all of them need besides the handle.
constexpr char otherArguments[] = R"("count":1,"buf-b64":"aGVsbG8=","offset":0,"whence":"set")";

class FileHandle : public FileTest {};

TEST_F(FileHandle, MissingArgumentsAreRefusedQuietly) {
    for (const FileCommand& command : commandsWithHandle) {
        expectQuietRefusal(command, "null", "missing arguments");
    }
}

TEST_F(FileHandle, MustBeANumber) {
    const std::uint64_t handle = openFile("/dev/zero", "r+");
    const std::string quoted = "\"" + std::to_string(handle) + "\"";
    for (const FileCommand& command : commandsWithHandle) {
        expectRefusal(command, "{}", "handle is not a number");
        for (const std::string& value :
             {std::string("null"), quoted, std::string("[1]"), std::string("{}")}) {
            expectRefusal(command, R"({"handle":)" + value + "," + otherArguments + "}",
                          "handle is not a number");
            // Before the arguments that follow it.
            expectRefusal(command,
                          R"({"count":null,"buf-b64":null,"offset":null,"whence":null,"handle":)" +
                              value + "}",
                          "handle is not a number");
        }
    }
    EXPECT_EQ(closeFile(handle), success);
}

TEST_F(FileHandle, NumberThatWasNeverGivenOutIsNoFile) {
    const std::uint64_t handle = openFile("/dev/zero", "r+");
    std::vector<std::string> numbers = {"0",
                                        "1",
                                        "-1",
                                        "true",
                                        "false",
                                        "3",
                                        "1.5",
                                        "1e3",
                                        "18446744073709551615",
                                        "9223372036854775808",
                                        "1e400"};
    for (const std::uint64_t other :
         {handle - 1, handle + 1, handle + 8, handle + (std::uint64_t{1} << 32U)}) {
        numbers.push_back(std::to_string(other));
    }
    for (const FileCommand& command : commandsWithHandle) {
        for (const std::string& number : numbers) {
            expectRefusal(command, R"({"handle":)" + number + "," + otherArguments + "}",
                          "handle is not a valid file");
            expectRefusal(command,
                          R"({"count":null,"buf-b64":null,"offset":null,"whence":null,"handle":)" +
                              number + "}",
                          "handle is not a valid file");
        }
    }
    EXPECT_EQ(closeFile(handle), success);
}

TEST_F(FileHandle, StreamThatTheHostDidNotOpenIsNoFile) {
    for (const FileCommand& command : commandsWithHandle) {
        expectRefusal(command, withHandle(fileHandle(stderr), otherArguments),
                      "handle is not a valid file");
    }
}

TEST_F(FileHandle, ClosedFileIsNone) {
    const std::uint64_t handle = openFile("/dev/zero", "r+");
    EXPECT_EQ(closeFile(handle), success);
    for (const FileCommand& command : commandsWithHandle) {
        expectRefusal(command, withHandle(handle, otherArguments), "handle is not a valid file");
    }
}

TEST_F(FileHandle, NumberIsCutTo64Bits) {
    const std::uint64_t handle = openFile("/dev/zero", "r+");
    const std::string number = std::to_string(handle);
    const auto wrapped = static_cast<std::int64_t>(handle);
    ASSERT_GT(wrapped, 0);
    for (const std::string& form : {number + ".9", number + "0e-1", number + "e0",
                                    "-" + std::to_string(std::uint64_t{0} - handle)}) {
        EXPECT_EQ(answerTo(fileFlush, R"({"handle":)" + form + "}"), success) << form;
    }
    EXPECT_EQ(closeFile(handle), success);
}

TEST_F(FileHandle, MayComeAgainAndThenNamesTheNewFile) {
    const std::array<std::string, 2> contents = {"first", "second"};
    const std::array<std::string, 2> files = {makeFile("1", contents[0]),
                                              makeFile("2", contents[1])};
    std::set<std::uint64_t> handles;
    for (std::size_t turn = 0; turn < 50; ++turn) {
        const std::uint64_t handle = openFile(files.at(turn % 2));
        EXPECT_EQ(fileHandleTable.size(), 1U);
        EXPECT_EQ(readFile(handle, 100), readAnswer(contents.at(turn % 2), true));
        EXPECT_EQ(closeFile(handle), success);
        handles.insert(handle);
    }
    if (!sanitized) {
        EXPECT_LT(handles.size(), 50U) << "the C library's streams come from few places";
    }
}

TEST_F(FileHandle, TableHasOneEntryForEachPlaceAtMost) {
    EXPECT_EQ(fileHandleTable.max_load_factor(), 1.0F);
}

TEST_F(FileHandle, NoFailureTakesItAway) {
    const std::uint64_t handle = openFile(makeFile("file", "content"));
    EXPECT_EQ(writeFile(handle, "x"), errorAnswer("fwrite error 9"));
    EXPECT_EQ(answerTo(fileRead, withHandle(handle, R"("count":"")")),
              errorAnswer("count is not a number"));
    EXPECT_EQ(readFile(handle, 100), errorAnswer("fread error 0"));
    EXPECT_EQ(seekFile(handle, -1, "set"), errorAnswer("fseek error 22"));
    EXPECT_EQ(seekFile(handle, 0, "SET"), errorAnswer("unknown whence value"));
    EXPECT_EQ(fileHandleTable.size(), 1U);
    EXPECT_EQ(seekFile(handle, 3, "set"), seekAnswer(3));
    EXPECT_EQ(readFile(handle, 4), readAnswer("tent", false));
    EXPECT_EQ(closeFile(handle), success);
}

/// The end of a pipe to which a child tells at its very end, after the objects of the process, what
/// has become of a descriptor.
int reportedDescriptor = -1;
int reportEnd = -1;

[[gnu::destructor]] void reportDescriptor() {
    if (reportEnd >= 0) {
        const char state = ::fcntl(reportedDescriptor, F_GETFD) < 0 ? 'c' : 'o';
        [[maybe_unused]] const ssize_t count = ::write(reportEnd, &state, 1);
    }
}

TEST_F(FileHandle, StreamsLeftOpenAreFlushedByTheCLibraryAtExitAndNotClosedByTheTable) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    const DescriptorGuard reader(ends[0]);
    DescriptorGuard writer(ends[1]);
    std::fflush(stdout);  // the child flushes what it has of it, too
    const int status = exitStatusOf([this, &writer] {
        const std::uint64_t handle = openFile(path("file"), "w");
        writeFile(handle, "hello");
        reportedDescriptor = ::fileno(fileHandleTable.begin()->first);
        reportEnd = writer.borrow();
        std::exit(fileContent(path("file")).empty() ? 3 : 4);  // NOLINT: one thread is here
    });
    EXPECT_EQ(status, 3);
    writer.closeNow();
    char state = '?';
    EXPECT_EQ(::read(reader.borrow(), &state, 1), 1);
    EXPECT_EQ(state, 'o') << "open";
    EXPECT_EQ(fileContent(path("file")), "hello");
}

TEST_F(FileHandle, OutlivesTheChannel) {
    const std::string file = makeFile("file", "content");
    useCommandTable(allCommands);
    FakePlatform platform;  // its channel, opened once more at the end, goes before the count
    AgentThread agent(platform);
    const std::string opened = agent.request(
        R"({"execute":"guest-file-open","arguments":{"path":")" + file + R"(","mode":"r+"}})");
    ASSERT_TRUE(opened.starts_with(R"({"return":)")) << opened;
    const std::string handle = R"({"handle":)" + opened.substr(10, opened.size() - 11);
    const auto ask = [&](const std::string& command, const std::string& more = "") {
        return agent.request(R"({"execute":"guest-file-)" + command + R"(","arguments":)" + handle +
                             more + "}}");
    };
    EXPECT_EQ(ask("read", R"(,"count":3)"), readAnswer("con", false));
    agent.reconnect();
    EXPECT_EQ(ask("read", R"(,"count":4)"), readAnswer("tent", false));
    EXPECT_EQ(ask("seek", R"(,"offset":-1,"whence":"end")"), seekAnswer(6));
    EXPECT_EQ(ask("write", R"(,"buf-b64":"aGVsbG8=")"), writeAnswer(5));
    agent.reconnect();
    EXPECT_EQ(fileContent(file), "content");
    EXPECT_EQ(ask("flush"), success);
    EXPECT_EQ(fileContent(file), "contenhello");
    EXPECT_EQ(ask("close"), success);
    EXPECT_EQ(ask("close"), errorAnswer("handle is not a valid file"));
}

/// Ends a child with the number of the check that failed.
void check(int number, bool held) {
    if (!held) {
        ::_exit(number);
    }
}

/// Opens a file until that fails, positions each stream elsewhere, and comes back to all of them.
void useAllDescriptors(const std::string& file) {
    std::vector<std::uint64_t> handles;
    const std::string arguments = R"({"path":")" + file + "\"}";
    const std::string refusal = errorAnswer("invalid path or mode");
    std::string answer = answerTo(fileOpen, arguments);
    for (; answer != refusal; answer = answerTo(fileOpen, arguments)) {
        handles.push_back(std::stoull(answer.substr(10)));
        const auto position = static_cast<std::int64_t>(handles.size());
        check(1, seekFile(handles.back(), position, "set") ==
                     seekAnswer(static_cast<std::uint64_t>(position)));
    }
    check(2, handles.size() > 4000 && fileHandleTable.size() == handles.size());
    check(3, std::set(handles.begin(), handles.end()).size() == handles.size());
    for (std::size_t index = 0; index < handles.size(); ++index) {
        check(4, seekFile(handles[index], 0, "cur") == seekAnswer(index + 1));
    }
    check(5, ::open("/dev/null", O_RDONLY | O_CLOEXEC) < 0 && errno == EMFILE);
    check(6, seekFile(handles[0], 0, "set") == seekAnswer(0));
    check(7, readFile(handles[0], 10) == readAnswer(std::string(10, '\0'), false));
    check(8, closeFile(handles[1]) == success);
    answer = answerTo(fileOpen, arguments);
    check(9, answer.starts_with(R"({"return":)"));
    check(10, answerTo(fileOpen, arguments) == refusal);
    handles[1] = std::stoull(answer.substr(10));
    for (const std::uint64_t handle : handles) {
        check(11, closeFile(handle) == success);
    }
    check(12, fileHandleTable.empty());
}

TEST_F(FileHandle, ThousandsAreOpenAtOnceAndOneTooManyIsRefused) {
    const std::string file = makeFile("file", "");
    std::filesystem::resize_file(file, 1U << 20U);
    EXPECT_EQ(exitStatusOf([&file] {
                  rlimit limit{};
                  ::getrlimit(RLIMIT_NOFILE, &limit);
                  limit.rlim_cur = std::min<rlim_t>(4096, limit.rlim_max);
                  ::setrlimit(RLIMIT_NOFILE, &limit);
                  useAllDescriptors(file);
                  ::_exit(0);
              }),
              0);
}

}  // namespace
}  // namespace corvane
