#include <unistd.h>

#include <cstdlib>

#include <gtest/gtest.h>

#include "platform/linux/service_manager.h"

namespace corvane {
namespace {

constexpr char variable[] = "DBUS_SYSTEM_BUS_ADDRESS";

TEST(ServiceManagerPlace, IsTheUsualOne) {
    ::unsetenv(variable);
    const ServiceManager manager = thisGuestsServiceManager();
    EXPECT_EQ(manager.busAddress, "unix:path=/run/dbus/system_bus_socket");
    EXPECT_EQ(manager.directAddress, "unix:path=/run/systemd/private");
}

TEST(ServiceManagerPlace, OfTheBusIsWhatTheEnvironmentSays) {
    ::setenv(variable, "unix:path=/elsewhere", 1);
    const ServiceManager manager = thisGuestsServiceManager();
    ::unsetenv(variable);
    EXPECT_EQ(manager.busAddress, "unix:path=/elsewhere");
}

TEST(ServiceManagerPlace, RunsWhereItHasMadeItsDirectory) {
    EXPECT_EQ(thisGuestsServiceManager().runs(), ::access("/run/systemd/system", F_OK) == 0);
}

}  // namespace
}  // namespace corvane
