#include "tests/unit/commands/command_memory_fixture.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "commands/all_commands.h"
#include "commands/exec/process_table.h"
#include "commands/exec/reaper.h"
#include "commands/files/file_handle_table.h"
#include "core/command_table.h"
#include "core/read_loop.h"
#include "tests/fakes/descriptor_count.h"
#include "tests/fakes/failing_allocations.h"

namespace corvane {
namespace {

constexpr unsigned hangLimit = 300;  // seconds, and no test comes near it
constexpr long never = 1'000'000'000;

const std::string success = "{\"return\":{}}\n";
const std::string outOfMemoryAnswer = errorAnswer("out of memory");

/// Each run of digits as one: process ids, handles and times differ from run to run.
std::string withoutNumbers(const std::string& text) {
    std::string made;
    for (const char letter : text) {
        const bool isDigit = std::isdigit(static_cast<unsigned char>(letter)) != 0;
        if (!isDigit) {
            made += letter;
        } else if (!made.ends_with('#')) {
            made += '#';
        }
    }
    return made;
}

std::string madeDirectory() {
    std::string name = std::filesystem::temp_directory_path() / "corvane-test-XXXXXX";
    return ::mkdtemp(name.data());
}

/// Waits for the end of all children, and reaps them as the agent does.
void awaitChildren() {
    siginfo_t info{};
    while (::waitid(P_ALL, 0, &info, WEXITED | WNOWAIT) == 0) {
        drainEndedChildren();
    }
}

}  // namespace

std::string request(const std::string& command, const std::string& arguments) {
    return R"({"execute":")" + command + R"(","arguments":)" + arguments + "}";
}

std::string errorAnswer(const std::string& description) {
    return R"({"error":{"class":"GenericError","desc":")" + description + "\"}}\n";
}

std::string numberIn(const std::string& answer) {
    const auto start = answer.find_first_of("0123456789");
    return answer.substr(start, answer.find_first_not_of("0123456789", start) - start);
}

CommandWithoutMemory::CommandWithoutMemory() : directory_(madeDirectory()) {}

CommandWithoutMemory::~CommandWithoutMemory() {
    std::filesystem::remove_all(directory_);
}

void CommandWithoutMemory::SetUp() {
    ::alarm(hangLimit);
    useCommandTable(allCommands);
    std::ofstream(path("file")) << "some content";
    std::ofstream(path("out")) << "";
    // The services notice what they are asked, which must not be what fails.
    fakes_.vsockSockets.createError = 0;
    fakes_.remoteLogin.available = true;
    descriptors_ = countDescriptors();
}

void CommandWithoutMemory::TearDown() {
    stopFailingAllocations();
    useCommandTable({});
    ::alarm(0);
}

std::string CommandWithoutMemory::path(const std::string& name) const {
    return directory_ + "/" + name;
}

CommandWithoutMemory::Outcome CommandWithoutMemory::run(const std::string& line, long allocation) {
    device_.pieces = {line + "\n", "{\"execute\":\"guest-ping\"}\n"};
    device_.next = 0;
    device_.sent.clear();
    Outcome outcome;
    {
        ReadLoop loop;
        failAllocations(allocation, 1);
        loop.pass();
        outcome.reached = stopFailingAllocations() == 0;
        outcome.answer = device_.sent;
        device_.sent.clear();
        loop.pass();
    }
    EXPECT_EQ(device_.sent, success) << allocation << ": " << line;
    device_.pieces.clear();
    return outcome;
}

std::string CommandWithoutMemory::answerTo(const std::string& line) {
    return run(line, never).answer;
}

std::string CommandWithoutMemory::openFile(const std::string& name, const std::string& mode) {
    return numberIn(answerTo(
        request("guest-file-open", R"({"path":")" + name + R"(","mode":")" + mode + "\"}")));
}

std::string CommandWithoutMemory::endedProgram(const std::string& arguments) {
    std::string pid = numberIn(answerTo(request("guest-exec", arguments)));
    awaitChildren();
    return pid;
}

void CommandWithoutMemory::expectConsistency(const std::string& name, const Subject& subject) {
    SCOPED_TRACE(name);
    const std::string regular = withoutNumbers(tryOnce(subject, never, "").answer);
    const long count = failEach(subject, regular);
    const long live = liveAllocations();
    failEach(subject, regular);
    EXPECT_EQ(liveAllocations(), live) << "memory that is not given back";
    EXPECT_GE(count, 3) << "the request itself is allocated";
    counts_ += count;
}

long CommandWithoutMemory::failEach(const Subject& subject, const std::string& regular) {
    long count = 0;
    while (tryOnce(subject, count, regular).reached) {
        ++count;
    }
    return count;
}

CommandWithoutMemory::Outcome CommandWithoutMemory::tryOnce(const Subject& subject, long allocation,
                                                            const std::string& regular) {
    const std::string line = subject.request();
    Outcome outcome = run(line, allocation);
    answer_ = outcome.answer;
    const bool done = withoutNumbers(outcome.answer) == regular;
    const bool told = done || outcome.answer == outOfMemoryAnswer ||
                      std::ranges::count(subject.failures, outcome.answer) > 0;
    EXPECT_TRUE(regular.empty() || told) << "allocation " << allocation << ": " << outcome.answer;
    EXPECT_TRUE(done || outcome.reached || regular.empty()) << outcome.answer;
    if (!regular.empty()) {
        SCOPED_TRACE("allocation " + std::to_string(allocation) + ": " + outcome.answer);
        subject.check(done);
    }
    cleanUp();
    return outcome;
}

void CommandWithoutMemory::cleanUp() {
    fakes_.vsockSockets.hostEnds.clear();
    fakes_.vsockSockets.connections.clear();
    fakes_.vsockSockets.nextSocket.closeNow();
    fakes_.remoteLogin.switched.clear();
    fakes_.clock.attempts.clear();
    awaitChildren();
    for (const auto& [key, stream] : fileHandleTable) {
        std::fclose(stream);
    }
    fileHandleTable.clear();
    for (const auto& [pid, record] : processTable) {
        if (record && record->captureOutput) {
            ::close(record->outFd);
            ::close(record->errFd);
            EXPECT_TRUE(std::filesystem::remove(record->outPath));
            EXPECT_TRUE(std::filesystem::remove(record->errPath));
        }
        EXPECT_TRUE(!record || !record->running);
    }
    processTable.clear();
    EXPECT_EQ(countDescriptors(), descriptors_);
    EXPECT_TRUE(!std::filesystem::exists(captureDirectory()) ||
                std::filesystem::is_empty(captureDirectory()));
}

}  // namespace corvane
