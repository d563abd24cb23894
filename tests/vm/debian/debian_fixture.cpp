#include "tests/vm/debian/debian_fixture.h"

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>

namespace corvane::vm {
namespace {

std::filesystem::path debianImageDirectory() {
    const char* chosen = std::getenv("CORVANE_DEBIAN_VM_DIR");
    return chosen != nullptr ? chosen : CORVANE_DEBIAN_VM_DEFAULT_DIR;
}

/// The disk and the machine, from their first use to the end of the run.
class SharedDebianGuest : public ::testing::Environment {
 public:
    GuestDisk& disk() {
        if (!disk_) {
            disk_.emplace(debianImageDirectory() / "disk.ext4");
        }
        return *disk_;
    }

    VirtualMachine& machine() {
        if (machine_ == nullptr || machine_->hasEnded()) {
            machine_.reset();
            const auto start = std::chrono::steady_clock::now();
            machine_ = std::make_unique<VirtualMachine>(debianImageDirectory(),
                                                        MachineOptions{.disk = disk().path()});
            const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
            std::cout << "[   INFO   ] started in " << taken.count() << " s" << std::endl;
        }
        return *machine_;
    }

    bool hasPackage = false;

    void TearDown() override {
        machine_.reset();
        disk_.reset();
    }

 private:
    std::optional<GuestDisk> disk_;
    std::unique_ptr<VirtualMachine> machine_;
};

SharedDebianGuest& sharedGuest =
    *static_cast<SharedDebianGuest*>(::testing::AddGlobalTestEnvironment(new SharedDebianGuest));

std::string managerCall(const std::string& method) {
    return "busctl -q call org.freedesktop.systemd1 /org/freedesktop/systemd1 "
           "org.freedesktop.systemd1.Manager " +
           method + ' ';
}

}  // namespace

const boost::json::value DebianTest::emptyReturn = {{"return", boost::json::object{}}};

void DebianTest::startGuest() {
    shareGuest(sharedGuest.machine());
}

void DebianTest::SetUp() {
    startGuest();
    if (!sharedGuest.hasPackage) {
        installPackage();
    }
    shell().check("systemctl start corvane.service");
    // The host that comes next finds an agent that serves.
    synchronisedHost();
}

GuestDisk& DebianTest::disk() {
    return sharedGuest.disk();
}

void DebianTest::installPackage(const std::string& program) {
    shell().check("DEBIAN_FRONTEND=noninteractive " + program + " /root/corvane.deb");
    sharedGuest.hasPackage = true;
}

void DebianTest::removePackage() {
    shell().check("dpkg --remove corvane");
    sharedGuest.hasPackage = false;
}

void DebianTest::purgePackage() {
    shell().check("dpkg --purge corvane");
    sharedGuest.hasPackage = false;
}

std::string DebianTest::property(const std::string& unit, const std::string& name) {
    return shell().check("systemctl show --value -p " + name + ' ' + unit);
}

std::string DebianTest::state(const std::string& verb, const std::string& unit) {
    // The status says the same once more.
    return shell().check("systemctl " + verb + ' ' + unit + " || true");
}

void DebianTest::enableUnit(const std::string& unit) {
    shell().check(managerCall("EnableUnitFiles") + "asbb 1 " + unit +
                  " false false && systemctl start " + unit);
}

void DebianTest::disableUnit(const std::string& unit) {
    shell().check(managerCall("DisableUnitFiles") + "asb 1 " + unit + " false && systemctl stop " +
                  unit);
}

boost::json::value DebianTest::answerTo(HostClient& host, const std::string& command, Limit limit) {
    return parse(host.request("{\"execute\":\"" + command + "\"}", limit));
}

}  // namespace corvane::vm
