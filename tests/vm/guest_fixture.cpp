#include "tests/vm/guest_fixture.h"

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <utility>

#include <boost/json/parse.hpp>

namespace corvane::vm {
namespace {

/// Holds a guest that tests share from its first use to the end of the run.
class SharedGuest : public ::testing::Environment {
 public:
    explicit SharedGuest(MachineOptions options) : options_(std::move(options)) {}
    VirtualMachine& machine() {
        if (!machine_) {
            machine_ = bootGuest(options_);
            // Until the agent has opened its port, what a host sends and leaves behind is lost.
            machine_->connectHost().synchronise();
        }
        return *machine_;
    }
    VsockPeer& vsockPeer() {
        if (!vsockPeer_) {
            vsockPeer_ = std::make_unique<VsockPeer>(machine());
        }
        return *vsockPeer_;
    }
    void TearDown() override {
        vsockPeer_.reset();
        machine_.reset();
    }

 private:
    MachineOptions options_;
    std::unique_ptr<VirtualMachine> machine_;
    std::unique_ptr<VsockPeer> vsockPeer_;
};

SharedGuest& share(MachineOptions options) {
    return *static_cast<SharedGuest*>(
        ::testing::AddGlobalTestEnvironment(new SharedGuest(std::move(options))));
}

SharedGuest& sharedGuest = share({});
SharedGuest& sharedVsockGuest = share({.vsockLoopback = true});

}  // namespace

std::filesystem::path imageDirectory() {
    const char* chosen = std::getenv("CORVANE_VM_DIR");
    return chosen != nullptr ? chosen : CORVANE_VM_DEFAULT_DIR;
}

std::unique_ptr<VirtualMachine> bootGuest(const MachineOptions& options) {
    return std::make_unique<VirtualMachine>(imageDirectory(), options);
}

void GuestTest::use(VirtualMachine& machine) {
    machine_ = &machine;
    logStart_ = machine.log().end();
}

void GuestTest::TearDown() {
    if (HasFailure() && machine_ != nullptr) {
        std::string log = machine_->log().since(logStart_);
        if (log.size() > 8192) {
            log = "..." + log.substr(log.size() - 8192);
        }
        std::cerr << "The guest's log of this test (" << machine_->log().path() << "):\n" << log;
    }
}

void GuestTest::shareGuest(VirtualMachine& machine) {
    // What earlier tests caused is logged before this test begins.
    machine.settleLog();
    use(machine);
}

void GuestTest::awaitInGuest(const std::string& command, std::string_view expected) {
    const auto end = std::chrono::steady_clock::now() + hangLimit;
    std::string output;
    while ((output = shell().check(command)) != expected) {
        if (std::chrono::steady_clock::now() > end) {
            throw HangError("'" + command + "' goes on to say: " + output +
                            "\nand not: " + std::string(expected));
        }
    }
}

HostClient GuestTest::synchronisedHost() {
    HostClient host = machine_->connectHost();
    host.synchronise();
    return host;
}

std::string GuestTest::settledLog() {
    machine_->settleLog();
    return machine_->log().since(logStart_);
}

void SharedGuestTest::SetUp() {
    shareGuest(sharedGuest.machine());
}

void SharedVsockGuestTest::SetUp() {
    shareGuest(sharedVsockGuest.machine());
}

VsockPeer& SharedVsockGuestTest::vsockPeer() {
    return sharedVsockGuest.vsockPeer();
}

boost::json::value parse(std::string_view json) {
    return boost::json::parse(json);
}

boost::json::value errorResponse(std::string_view errorClass, std::string_view description) {
    return {{"error", {{"class", errorClass}, {"desc", description}}}};
}

}  // namespace corvane::vm
