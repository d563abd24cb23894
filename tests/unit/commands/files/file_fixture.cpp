#include "tests/unit/commands/files/file_fixture.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <stdlib.h>
#include <system_error>

#include "commands/files/file_close.h"
#include "commands/files/file_flush.h"
#include "commands/files/file_handle_table.h"
#include "commands/files/file_open.h"
#include "commands/files/file_read.h"
#include "commands/files/file_seek.h"
#include "commands/files/file_write.h"
#include "core/descriptor_guard.h"
#include "core/json_writer.h"
#include "tests/fakes/descriptor_count.h"
#include "tests/unit/core/json_helper.h"

namespace corvane {

const FileCommand fileOpen{"handleGuestFileOpen", handleGuestFileOpen};
const FileCommand fileClose{"handleGuestFileClose", handleGuestFileClose};
const FileCommand fileRead{"handleGuestFileRead", handleGuestFileRead};
const FileCommand fileWrite{"handleGuestFileWrite", handleGuestFileWrite};
const FileCommand fileSeek{"handleGuestFileSeek", handleGuestFileSeek};
const FileCommand fileFlush{"handleGuestFileFlush", handleGuestFileFlush};

const std::string success = R"({"return":{}})";

FileTest::FileTest() : descriptors_(countDescriptors()) {
    std::string pattern = std::filesystem::temp_directory_path() / "corvane-files-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), pattern);
    }
    directory_ = pattern;
}

FileTest::~FileTest() {
    std::filesystem::remove_all(directory_);
}

void FileTest::TearDown() {
    EXPECT_TRUE(fileHandleTable.empty());
    EXPECT_EQ(countDescriptors(), descriptors_ + fileHandleTable.size());
    for (const auto& [stream, same] : fileHandleTable) {
        std::fclose(stream);
    }
    fileHandleTable.clear();
}

std::string FileTest::path(const std::string& name) const {
    return directory_ + "/" + name;
}

std::string FileTest::makeFile(const std::string& name, std::string_view content) const {
    std::ofstream(path(name), std::ios::binary) << content;
    return path(name);
}

std::string writtenBy(const std::function<void()>& body) {
    const DescriptorGuard file(::memfd_create("standard error", MFD_CLOEXEC));
    const DescriptorGuard before(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0));
    ::dup2(file.borrow(), STDERR_FILENO);
    body();
    ::dup2(before.borrow(), STDERR_FILENO);
    std::string text(static_cast<std::size_t>(::lseek(file.borrow(), 0, SEEK_END)), '\0');
    EXPECT_EQ(::pread(file.borrow(), text.data(), text.size(), 0),
              static_cast<ssize_t>(text.size()));
    return text;
}

std::string answerTo(const FileCommand& command, const std::string& arguments) {
    const JsonValue value = arguments == "null" ? JsonValue() : valueOf(arguments);
    return writeJson(command.handler(value.object()));
}

namespace {

void expectAnswer(const FileCommand& command, const std::string& arguments,
                  const std::string& answer, const std::string& written) {
    std::string given;
    EXPECT_EQ(writtenBy([&] { given = answerTo(command, arguments); }), written)
        << command.handlerName << " " << arguments;
    EXPECT_EQ(given, answer) << command.handlerName << " " << arguments;
}

std::string withText(std::uint64_t handle, std::string_view before, std::string_view text) {
    return withHandle(handle, std::string(before).append("\"").append(text).append("\""));
}

}  // namespace

void expectRefusal(const FileCommand& command, const std::string& arguments,
                   const std::string& description) {
    expectAnswer(command, arguments, errorAnswer(description),
                 std::string(command.handlerName) + ": " + description + "\n");
}

void expectQuietRefusal(const FileCommand& command, const std::string& arguments,
                        const std::string& description) {
    expectAnswer(command, arguments, errorAnswer(description), "");
}

std::string withHandle(std::uint64_t handle, const std::string& more) {
    return R"({"handle":)" + std::to_string(handle) + (more.empty() ? "" : ",") + more + "}";
}

std::uint64_t openFile(const std::string& path, const std::string& mode) {
    const JsonValue arguments = JsonObject{{"path", JsonValue(path)}, {"mode", JsonValue(mode)}};
    const JsonValue response = handleGuestFileOpen(arguments.object());
    const JsonValue* handle = objectOf(response).find("return");
    if (handle == nullptr) {
        ADD_FAILURE() << path << " in mode " << mode << ": " << writeJson(response);
        return 0;
    }
    return numberOf(*handle).asUnsigned64();
}

std::string closeFile(std::uint64_t handle) {
    return answerTo(fileClose, withHandle(handle));
}

std::string readFile(std::uint64_t handle, std::uint64_t count) {
    return answerTo(fileRead, withHandle(handle, R"("count":)" + std::to_string(count)));
}

std::string writeFile(std::uint64_t handle, std::string_view bytes) {
    return answerTo(fileWrite, withText(handle, R"("buf-b64":)", base64ByGroups(bytes)));
}

std::string seekFile(std::uint64_t handle, std::int64_t offset, const std::string& whence) {
    return answerTo(
        fileSeek,
        withText(handle, R"("offset":)" + std::to_string(offset) + R"(,"whence":)", whence));
}

std::string flushFile(std::uint64_t handle) {
    return answerTo(fileFlush, withHandle(handle));
}

std::string errorAnswer(const std::string& description) {
    return R"({"error":{"class":"GenericError","desc":")" + description + "\"}}";
}

std::string readAnswer(std::string_view bytes, bool eof) {
    return R"({"return":{"count":)" + std::to_string(bytes.size()) + R"(,"eof":)" +
           (eof ? "true" : "false") + R"(,"buf-b64":")" + base64ByGroups(bytes) + "\"}}";
}

std::string writeAnswer(std::uint64_t count, bool eof) {
    return R"({"return":{"count":)" + std::to_string(count) + R"(,"eof":)" +
           (eof ? "true" : "false") + "}}";
}

std::string seekAnswer(std::uint64_t position) {
    return R"({"return":{"eof":false,"position":)" + std::to_string(position) + "}}";
}

std::string fileContent(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return std::move(content).str();
}

std::string base64ByGroups(std::string_view bytes) {
    constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text((bytes.size() + 2) / 3 * 4, '=');
    char* next = text.data();
    unsigned group = 0;
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        group = group * 256 + static_cast<unsigned char>(bytes[index]);
        if (index % 3 == 2) {
            for (const unsigned divisor : {262144U, 4096U, 64U, 1U}) {
                *next++ = alphabet[group / divisor % 64];
            }
            group = 0;
        }
    }
    if (bytes.size() % 3 == 1) {
        *next++ = alphabet[group / 4];
        *next++ = alphabet[group % 4 * 16];
    } else if (bytes.size() % 3 == 2) {
        *next++ = alphabet[group / 1024];
        *next++ = alphabet[group / 16 % 64];
        *next++ = alphabet[group % 16 * 4];
    }
    return text;
}

std::string mixedBytes(std::size_t size, unsigned seed) {
    std::minstd_rand random(seed);
    std::string bytes(size, '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(random() >> 8U);
    }
    return bytes;
}

}  // namespace corvane
