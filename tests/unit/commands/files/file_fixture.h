#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "core/command_table.h"
#include "core/json_value.h"
#include "tests/fakes/fake_platform.h"

namespace corvane {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool sanitized = true;
#else
inline constexpr bool sanitized = false;
#endif

/// Tests of the file commands on real files, in a directory of their own. Each must leave the
/// handle table empty and as many descriptors as it found.
class FileTest : public testing::Test {
 protected:
    FileTest();
    ~FileTest() override;
    void TearDown() override;

    /// The path of a file in the directory, which need not be there.
    [[nodiscard]] std::string path(const std::string& name) const;

    /// Gives a file that content, and returns its path.
    std::string makeFile(const std::string& name, std::string_view content) const;

    FakePlatform platform_;

 private:
    std::string directory_;
    std::size_t descriptors_;
};

/// A handler, and the name that it has on standard error.
struct FileCommand {
    const char* handlerName;
    ArgumentsHandler handler;
};

extern const FileCommand fileOpen;
extern const FileCommand fileClose;
extern const FileCommand fileRead;
extern const FileCommand fileWrite;
extern const FileCommand fileSeek;
extern const FileCommand fileFlush;

/// What `body` writes to standard error. Unlike gtest's capture it flushes no stream: what is
/// buffered is what these tests are about.
std::string writtenBy(const std::function<void()>& body);

/// The response, as JSON, to arguments, as JSON; "null" stands for none.
std::string answerTo(const FileCommand& command, const std::string& arguments);

/// The command refuses, and writes that to standard error as well, or nothing.
void expectRefusal(const FileCommand& command, const std::string& arguments,
                   const std::string& description);
void expectQuietRefusal(const FileCommand& command, const std::string& arguments,
                        const std::string& description);

/// {"handle":HANDLE,MORE}
std::string withHandle(std::uint64_t handle, const std::string& more = "");

/// The handle of a file that opens, or 0 and a failed test. The path must need no escapes.
std::uint64_t openFile(const std::string& path, const std::string& mode = "r");

// Each returns the response, as JSON.
std::string closeFile(std::uint64_t handle);
std::string readFile(std::uint64_t handle, std::uint64_t count);
std::string writeFile(std::uint64_t handle, std::string_view bytes);
std::string seekFile(std::uint64_t handle, std::int64_t offset, const std::string& whence);
std::string flushFile(std::uint64_t handle);

// What responses look like, as JSON.
extern const std::string success;
std::string errorAnswer(const std::string& description);
std::string readAnswer(std::string_view bytes, bool eof);
std::string writeAnswer(std::uint64_t count, bool eof = false);
std::string seekAnswer(std::uint64_t position);

/// The whole content of a file.
std::string fileContent(const std::string& path);

/// Base64, made by arithmetic and none of the agent's code.
std::string base64ByGroups(std::string_view bytes);

/// Bytes of all values, in no order.
std::string mixedBytes(std::size_t size, unsigned seed = 1);

}  // namespace corvane
