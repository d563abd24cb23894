#include "tests/unit/commands/exec/program_run.h"

#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <utility>

#include "commands/exec/launch.h"
#include "commands/exec/reaper.h"
#include "core/json_writer.h"

namespace corvane {

ProgramTest::~ProgramTest() {
    const std::lock_guard lock(processTableLock);
    processTable.clear();
}

ExecRequest shellCommand(const std::string& text) {
    ExecRequest request;
    request.path = "/bin/sh";
    request.arguments = {"-c", text};
    return request;
}

pid_t pidOf(const JsonValue& response) {
    const JsonValue* result = response.object()->find("return");
    const JsonValue* pid = result != nullptr ? result->object()->find("pid") : nullptr;
    if (pid == nullptr || pid->number() == nullptr) {
        ADD_FAILURE() << writeJson(response);
        return -1;
    }
    return pid->number()->asSigned32();
}

std::string errorOf(const JsonValue& response) {
    const JsonValue* error = response.object()->find("error");
    if (error == nullptr || *error->object()->find("class")->string() != "GenericError") {
        ADD_FAILURE() << writeJson(response);
        return {};
    }
    return *error->object()->find("desc")->string();
}

void awaitEnd(pid_t pid) {
    siginfo_t info{};
    while (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) < 0 &&
           errno == EINTR) {
    }
}

ProgramEnd endOf(pid_t pid) {
    awaitEnd(pid);
    drainEndedChildren();
    const std::lock_guard lock(processTableLock);
    const auto entry = processTable.find(pid);
    if (entry == processTable.end() || !entry->second || entry->second->running) {
        ADD_FAILURE() << "no record of the end of " << pid;
        return {};
    }
    const ProcessRecord& record = *entry->second;
    ProgramEnd end{record.status, {}, {}};
    if (record.captureOutput) {
        end.out = contentOf(record.outPath);
        end.err = contentOf(record.errPath);
        ::close(record.outFd);
        ::close(record.errFd);
        ::unlink(record.outPath.c_str());
        ::unlink(record.errPath.c_str());
    }
    processTable.erase(entry);
    return end;
}

ProgramEnd run(ExecRequest request) {
    request.captureOutput = true;
    const pid_t pid = pidOf(launch(std::move(request)));
    return pid < 0 ? ProgramEnd{} : endOf(pid);
}

std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

std::vector<std::string> linesOf(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

}  // namespace corvane
