#include "tests/vm/exec_fixture.h"

#include <random>

namespace corvane::vm {

void ExecTest::SetUp() {
    SharedVsockGuestTest::SetUp();
    host_ = std::make_unique<HostClient>(synchronisedHost());
    exec_ = std::make_unique<ExecClient>(*host_);
}

void ExecTest::TearDown() {
    if (HasFailure()) {
        // What the test did not come to end must not disturb the next one.
        shell().check("kill -9 $(cat /proc/$(service pid)/task/*/children) 2>/dev/null; true");
    }
    EXPECT_NO_THROW(awaitInGuest(countChildren(), "0"));
    SharedVsockGuestTest::TearDown();
}

std::string ExecTest::countChildren() {
    return "cat /proc/$(service pid)/task/*/children | wc -w";
}

std::string ExecTest::countDescriptors() {
    return "ls /proc/$(service pid)/fd | wc -l";
}

void ExecTest::restartAgent() {
    shell().check("service restart");
    host_->synchronise();
}

void ExecTest::awaitProgram(pid_t pid, const std::string& path) {
    awaitInGuest("readlink /proc/" + std::to_string(pid) + "/exe", path);
}

void ExecTest::end(pid_t pid) {
    exec().signal(pid, 9);
    exec().awaitExit(pid);
}

pid_t ExecTest::startOnVsock(Arguments arguments) {
    arguments["mirel-vsock-stdio"] = "vsock://2:" + std::to_string(vsockPeer().listen());
    const pid_t pid = exec().start(arguments);
    vsockPeer().awaitConnection();
    return pid;
}

pid_t ExecTest::startOnTerminal(Arguments arguments, const WireTerminal& terminal) {
    arguments["mirel-termios"] = terminal.record();
    arguments["mirel-window-size"] = {{"rows", terminalRows}, {"columns", terminalColumns}};
    return startOnVsock(std::move(arguments));
}

std::string randomBytes(std::size_t count) {
    std::mt19937_64 numbers(count);
    std::string bytes;
    bytes.reserve(count + 8);
    while (bytes.size() < count) {
        const auto number = numbers();
        bytes.append(reinterpret_cast<const char*>(&number), sizeof number);
    }
    bytes.resize(count);
    return bytes;
}

}  // namespace corvane::vm
