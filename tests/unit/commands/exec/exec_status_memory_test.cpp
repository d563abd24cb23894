#include "tests/fakes/failing_allocations.h"
#include "tests/unit/commands/exec/exec_status_fixture.h"

namespace corvane {
namespace {

class ExecStatusWithoutMemory : public ExecStatusFixture {
 protected:
    /// The text of the answer; empty when memory did not suffice for one.
    std::string pollWithFailure(const JsonObject& arguments, long allocation) {
        failAllocations(allocation, 1);
        try {
            const JsonValue response = handleGuestExecStatus(&arguments);
            failed_ = stopFailingAllocations() == 0;
            return writeJson(response);
        } catch (const std::bad_alloc&) {
            failed_ = true;
            return {};
        }
    }

    bool failed_ = true;
};

TEST_F(ExecStatusWithoutMemory, NothingIsLostWhicheverAllocationFails) {
    const std::string bytes(100000, 'x');
    const std::string text = encodeBase64(bytes);
    const auto answerWith = [](const std::string& out, const std::string& err) {
        return R"({"return":{"exited":true,"out-data":")" + out + R"(","err-data":")" + err +
               R"(","exitcode":3}})";
    };
    const std::string whole = answerWith(text, text);
    JsonObject arguments;
    arguments.add("pid", JsonNumber::fromSigned(nobodysPid));
    int unanswered = 0;
    int withoutText = 0;
    for (long allocation = 0; failed_; ++allocation) {
        ProcessRecord& record = rememberCapturing(nobodysPid);
        const std::string outPath = record.outPath;
        writeAll(record.outFd, bytes);
        writeAll(record.errFd, bytes);
        end(record, 3 << 8);
        const std::size_t descriptors = countDescriptors();
        const std::string answer = pollWithFailure(arguments, allocation);
        if (answer.empty()) {
            ++unanswered;
            EXPECT_EQ(countDescriptors(), descriptors) << allocation;
            EXPECT_TRUE(std::filesystem::exists(outPath)) << allocation;
            EXPECT_TRUE(writeJson(handleGuestExecStatus(&arguments)) == whole) << allocation;
        } else if (answer != whole) {
            ++withoutText;
            EXPECT_TRUE(answer == answerWith("", text) || answer == answerWith(text, ""))
                << allocation << ": " << answer.substr(0, 200);
        }
        EXPECT_FALSE(std::filesystem::exists(outPath)) << allocation;
        EXPECT_FALSE(processTable.contains(nobodysPid)) << allocation;
    }
    EXPECT_EQ(withoutText, 2) << "one for each text";
    EXPECT_EQ(platform_.systemLog.status().size(), 2U);
    EXPECT_GT(unanswered, 2) << "the object and the response need memory, too";
}

TEST_F(ExecStatusWithoutMemory, QuestionForAnUnknownPidMayFail) {
    JsonObject arguments;
    arguments.add("pid", JsonNumber::fromSigned(nobodysPid));
    for (long allocation = 0; failed_; ++allocation) {
        const std::string answer = pollWithFailure(arguments, allocation);
        EXPECT_TRUE(answer.empty() || answer == invalidPid) << answer;
        EXPECT_EQ(writeJson(handleGuestExecStatus(&arguments)), invalidPid);
        processTable.clear();
    }
}

}  // namespace
}  // namespace corvane
