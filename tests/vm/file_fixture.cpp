#include "tests/vm/file_fixture.h"

namespace corvane::vm {
namespace {

constexpr char printPrivateKibibytes[] =
    "awk '/^Private_(Clean|Dirty)/ { sum += $2 } END { print sum }' "
    "/proc/$(service pid)/smaps_rollup";

}  // namespace

void FileTest::SetUp() {
    SharedVsockGuestTest::SetUp();
    shell().check("mkdir -p " + path(""));
    connect();
    descriptors_ = countDescriptors();
}

void FileTest::TearDown() {
    if (!HasFailure()) {
        EXPECT_NO_THROW(expectAnAnswer());
        EXPECT_EQ(countDescriptors(), descriptors_);
    }
    if (HasFailure() || restarted_) {
        // What a failed test left open must not disturb the next one.
        shell().check("rm -f /run/agent/environment; service restart");
        host_->synchronise();
    }
    shell().check("rm -rf " + path(""));
    SharedVsockGuestTest::TearDown();
}

void FileTest::connect() {
    host_ = std::make_unique<HostClient>(synchronisedHost());
    files_ = std::make_unique<FileClient>(*host_);
}

void FileTest::replaceHost() {
    host_->disconnect();
    awaitLog("The connection has ended.");
    connect();
}

void FileTest::restartAgent(const std::string& environment) {
    restarted_ = true;
    shell().check("cat > /run/agent/environment <<'END'\n" + environment +
                  "\nEND\nservice restart");
    host_->synchronise();
    descriptors_ = countDescriptors();
}

std::string FileTest::path(const std::string& name) {
    return "/run/files/" + name;
}

std::string FileTest::makeFile(const std::string& name, const std::string& text) {
    shell().check("printf '%s' '" + text + "' > " + path(name));
    return path(name);
}

std::string FileTest::makeRandomFile(const std::string& name, std::size_t size) {
    return shell().check("head -c " + std::to_string(size) + " /dev/urandom | tee " + path(name) +
                         " | sha256sum | cut -d ' ' -f 1");
}

std::string FileTest::contentOf(const std::string& filePath) {
    return shell().check("cat " + filePath);
}

std::string FileTest::checksumOf(const std::string& filePath) {
    return shell().check("sha256sum < " + filePath + " | cut -d ' ' -f 1");
}

int FileTest::countDescriptors() {
    return std::stoi(shell().check("ls /proc/$(service pid)/fd | wc -l"));
}

long FileTest::privateKibibytes() {
    return std::stol(shell().check(printPrivateKibibytes));
}

void FileTest::awaitPrivateKibibytes(long limit) {
    awaitInGuest("[ $(" + std::string(printPrivateKibibytes) + ") -gt " + std::to_string(limit) +
                     " ] || echo reached",
                 "reached");
}

void FileTest::expectAnAnswer() {
    EXPECT_EQ(host_->request(R"({"execute":"guest-ping"})"), R"({"return":{}})");
}

}  // namespace corvane::vm
