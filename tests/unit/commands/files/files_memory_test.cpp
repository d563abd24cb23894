#include <algorithm>
#include <new>
#include <string>

#include <gtest/gtest.h>

#include "commands/files/file_handle_table.h"
#include "core/json_writer.h"
#include "tests/fakes/descriptor_count.h"
#include "tests/fakes/failing_allocations.h"
#include "tests/unit/commands/files/file_fixture.h"
#include "tests/unit/core/json_helper.h"

namespace corvane {
namespace {

class FilesWithoutMemory : public FileTest {
 protected:
    void TearDown() override {
        stopFailingAllocations();
        FileTest::TearDown();
    }

    /// How a request has gone with one allocation failing.
    struct Outcome {
        bool reached = false;  ///< there was such an allocation
        std::string answer;    ///< empty when it ended the request
    };

    static Outcome run(const FileCommand& command, const std::string& arguments, long allocation) {
        const JsonValue value = valueOf(arguments);
        Outcome outcome;
        JsonValue response;
        bool answered = true;
        failAllocations(allocation, 1);
        try {
            response = command.handler(value.object());
        } catch (const std::bad_alloc&) {
            answered = false;
        }
        outcome.reached = stopFailingAllocations() == 0;
        outcome.answer = answered ? writeJson(response) : "";
        return outcome;
    }

    /// The table knows as many streams as there are descriptors more than before.
    void expectConsistency() const {
        EXPECT_EQ(countDescriptors(), before_ + fileHandleTable.size());
    }

    /// The open stream of that handle.
    static std::FILE* streamOf(std::uint64_t handle) {
        const auto entry = std::ranges::find_if(fileHandleTable, [handle](const auto& candidate) {
            return fileHandle(candidate.first) == handle;
        });
        return entry == fileHandleTable.end() ? nullptr : entry->second;
    }

    static long positionOf(std::uint64_t handle) { return std::ftell(streamOf(handle)); }

 private:
    const std::size_t before_ = countDescriptors();
};

TEST_F(FilesWithoutMemory, OpenLeavesNothingOpenThatTheHostDoesNotKnow) {
    const std::string file = makeFile(std::string(100, 'n'), "content");
    const std::string arguments = R"({"path":")" + file + R"(","mode":"r"})";
    long failures = 0;
    for (long allocation = 0;; ++allocation) {
        const Outcome outcome = run(fileOpen, arguments, allocation);
        expectConsistency();
        if (!outcome.reached) {
            break;
        }
        EXPECT_EQ(outcome.answer, "") << allocation;
        EXPECT_TRUE(fileHandleTable.empty()) << allocation;
        ++failures;
    }
    EXPECT_GE(failures, 2) << "the entry and the response";
    ASSERT_EQ(fileHandleTable.size(), 1U);
    EXPECT_EQ(closeFile(fileHandle(fileHandleTable.begin()->first)), success);
}

TEST_F(FilesWithoutMemory, OpenKeepsWhatElseIsOpen) {
    const std::uint64_t other = openFile(makeFile("other", "content"));
    const std::string arguments = R"({"path":")" + path("other") + "\"}";
    for (long allocation = 0; run(fileOpen, arguments, allocation).reached; ++allocation) {
        EXPECT_EQ(fileHandleTable.size(), 1U);
        expectConsistency();
    }
    EXPECT_EQ(fileHandleTable.size(), 2U);
    EXPECT_EQ(readFile(other, 10), readAnswer("content", true));
    EXPECT_EQ(closeFile(other), success);
    EXPECT_EQ(closeFile(fileHandle(fileHandleTable.begin()->first)), success);
}

TEST_F(FilesWithoutMemory, CloseEitherHasClosedOrHasDoneNothing) {
    const std::string file = makeFile("file", "content");
    for (long allocation = 0;; ++allocation) {
        const std::uint64_t handle = openFile(file);
        const Outcome outcome = run(fileClose, withHandle(handle), allocation);
        expectConsistency();
        if (!fileHandleTable.empty()) {
            EXPECT_EQ(outcome.answer, "");
            EXPECT_EQ(closeFile(handle), success);
        }
        if (!outcome.reached) {
            EXPECT_EQ(outcome.answer, success);
            break;
        }
    }
}

TEST_F(FilesWithoutMemory, CloseThatFailsHasClosedAsWellOrHasDoneNothing) {
    for (long allocation = 0;; ++allocation) {
        const std::uint64_t handle = openFile("/dev/full", "w");
        EXPECT_EQ(writeFile(handle, "hello"), writeAnswer(5));
        const Outcome outcome = run(fileClose, withHandle(handle), allocation);
        expectConsistency();
        if (!outcome.reached) {
            EXPECT_EQ(outcome.answer, errorAnswer("fclose error 28"));
            EXPECT_TRUE(fileHandleTable.empty());
            break;
        }
        if (!fileHandleTable.empty()) {
            EXPECT_EQ(outcome.answer, "");
            EXPECT_EQ(closeFile(handle), errorAnswer("fclose error 28"));
        }
    }
}

TEST_F(FilesWithoutMemory, ReadThatFailsLeavesThePositionWhereItWas) {
    const std::string content = mixedBytes(400000);
    const std::uint64_t handle = openFile(makeFile("file", content));
    for (const std::uint64_t count : {std::uint64_t{10}, std::uint64_t{5000}, std::uint64_t{98304},
                                      std::uint64_t{250000}, ~std::uint64_t{0}}) {
        long failures = 0;
        for (long allocation = 0;; ++allocation) {
            EXPECT_EQ(seekFile(handle, 7, "set"), seekAnswer(7));
            const Outcome outcome = run(
                fileRead, withHandle(handle, R"("count":)" + std::to_string(count)), allocation);
            expectConsistency();
            if (!outcome.reached) {
                const bool all = count > content.size();
                EXPECT_TRUE(outcome.answer == readAnswer(content.substr(7, count), all)) << count;
                break;
            }
            ++failures;
            if (outcome.answer.empty()) {
                EXPECT_EQ(positionOf(handle), 7) << count << ", allocation " << allocation;
            }
        }
        EXPECT_GE(failures, 2) << count;
    }
    EXPECT_EQ(closeFile(handle), success);
}

TEST_F(FilesWithoutMemory, ReadOfAStreamThatDoesNotTellItsSizeGivesBackToo) {
    const std::uint64_t handle = openFile("/proc/cmdline");
    const std::string content = fileContent("/proc/cmdline");
    for (long allocation = 0;; ++allocation) {
        EXPECT_EQ(seekFile(handle, 0, "set"), seekAnswer(0));
        const Outcome outcome = run(fileRead, withHandle(handle), allocation);
        if (!outcome.reached) {
            EXPECT_EQ(outcome.answer, readAnswer(content, true));
            break;
        }
        if (outcome.answer.empty()) {
            EXPECT_EQ(positionOf(handle), 0) << allocation;
        }
    }
    EXPECT_EQ(closeFile(handle), success);
}

TEST_F(FilesWithoutMemory, FailureOfAReadMayFailToBeTold) {
    const std::uint64_t handle = openFile(path(""));
    for (long allocation = 0;; ++allocation) {
        const Outcome outcome = run(fileRead, withHandle(handle), allocation);
        expectConsistency();
        if (!outcome.reached) {
            EXPECT_EQ(outcome.answer, errorAnswer("fread error 21"));
            break;
        }
    }
    EXPECT_EQ(closeFile(handle), success);
}

TEST_F(FilesWithoutMemory, WriteEitherWritesAllOrNothing) {
    const std::string bytes = mixedBytes(200000);
    const std::string text = R"("buf-b64":")" + base64ByGroups(bytes) + "\"";
    long failures = 0;
    for (long allocation = 0;; ++allocation) {
        const std::uint64_t handle = openFile(path("file"), "w");
        const Outcome outcome = run(fileWrite, withHandle(handle, text), allocation);
        expectConsistency();
        EXPECT_EQ(closeFile(handle), success);
        const std::string content = fileContent(path("file"));
        EXPECT_TRUE(content.empty() || content == bytes) << content.size();
        if (!outcome.reached) {
            EXPECT_EQ(outcome.answer, writeAnswer(bytes.size()));
            EXPECT_TRUE(content == bytes);
            break;
        }
        ++failures;
    }
    EXPECT_GE(failures, 2);
}

TEST_F(FilesWithoutMemory, SeekAndFlushKeepTheHandle) {
    const std::uint64_t handle = openFile(makeFile("file", "0123456789"), "r+");
    const std::string arguments = withHandle(handle, R"("offset":3,"whence":"set")");
    for (const FileCommand& command : {fileSeek, fileFlush}) {
        long allocation = 0;
        while (run(command, arguments, allocation).reached) {
            EXPECT_NE(streamOf(handle), nullptr);
            expectConsistency();
            ++allocation;
        }
        EXPECT_GE(allocation, 1) << command.handlerName;
    }
    EXPECT_EQ(readFile(handle, 2), readAnswer("34", false));
    EXPECT_EQ(closeFile(handle), success);
}

TEST_F(FilesWithoutMemory, RefusalsMayFailToBeTold) {
    for (const FileCommand& command :
         {fileOpen, fileClose, fileRead, fileWrite, fileSeek, fileFlush}) {
        for (long allocation = 0; run(command, withHandle(1), allocation).reached; ++allocation) {
            expectConsistency();
        }
        EXPECT_TRUE(fileHandleTable.empty());
    }
}

}  // namespace
}  // namespace corvane
