#include "tests/vm/guest_fixture.h"

#include <cstdlib>

#include <boost/json/parse.hpp>

namespace corvane::vm {
namespace {

/// Holds the shared guest from its first use to the end of the run.
class SharedGuest : public ::testing::Environment {
 public:
    VirtualMachine& machine() {
        if (!machine_) {
            machine_ = bootGuest();
            // Until the agent has opened its port, what a host sends and leaves behind is lost.
            machine_->connectHost().synchronise();
        }
        return *machine_;
    }
    void TearDown() override { machine_.reset(); }

 private:
    std::unique_ptr<VirtualMachine> machine_;
};

auto* const sharedGuest =
    static_cast<SharedGuest*>(::testing::AddGlobalTestEnvironment(new SharedGuest));

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
    use(sharedGuest->machine());
    // What earlier tests caused is logged before this test begins.
    machine().settleLog();
    use(machine());
}

boost::json::value parse(std::string_view json) {
    return boost::json::parse(json);
}

boost::json::value errorResponse(std::string_view errorClass, std::string_view description) {
    return {{"error", {{"class", errorClass}, {"desc", description}}}};
}

}  // namespace corvane::vm
