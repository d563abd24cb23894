#include "platform/linux/linux_serial_devices.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "tests/unit/platform/linux/temporary_tree.h"

namespace corvane {
namespace {

using Classes = std::vector<std::string>;

/// A machine with a serial line and an agent's port, as the kernel shows them. /dev/null, which is
/// 1:3 everywhere, stands in for the port's device node.
class SerialDevicesTest : public testing::Test {
 protected:
    void makePort(const std::string& name, const std::string& number) const {
        const std::string virtio = "sys/devices/pci0000:00/0000:00:05.0/virtio1";
        const std::string port = virtio + "/virtio-ports/" + name;
        tree_.makeFile(port + "/dev", number + "\n");
        tree_.makeLink(port + "/device", "../../../virtio1");
        tree_.makeLink(port + "/subsystem", "../../../../../../class/virtio-ports");
        tree_.makeLink("sys/class/virtio-ports/" + name,
                       "../../devices/pci0000:00/0000:00:05.0/virtio1/virtio-ports/" + name);
    }

    /// The kernel gives both a file `device`, with a number in it.
    void makeVirtioParents() const {
        const std::string card = "sys/devices/pci0000:00/0000:00:05.0";
        tree_.makeFile(card + "/device", "0x1003\n");
        tree_.makeFile(card + "/virtio1/device", "0x0003\n");
        tree_.makeLink(card + "/driver", "../../../bus/pci/drivers/virtio-pci");
        tree_.makeLink(card + "/virtio1/driver", "../../../../bus/virtio/drivers/virtio_console");
    }

    void makeSerialLine() const {
        const std::string line = "sys/devices/platform/serial8250/tty/ttyS0";
        tree_.makeFile(line + "/dev", "4:64\n");
        tree_.makeLink(line + "/device", "../../../serial8250");
        tree_.makeLink("sys/devices/platform/serial8250/driver",
                       "../../../bus/platform/drivers/serial8250");
        tree_.makeLink("sys/class/tty/ttyS0", "../../devices/platform/serial8250/tty/ttyS0");
    }

    /// As the kernel makes hvcN: registered by the terminal layer, below no device.
    void makeConsole(const std::string& number) const {
        tree_.makeFile("sys/devices/virtual/tty/hvc0/dev", number + "\n");
        tree_.makeLink("sys/class/tty/hvc0", "../../devices/virtual/tty/hvc0");
    }

    void makeAgentLink() const { tree_.makeLink("dev/agent", "/dev/null"); }

    [[nodiscard]] std::optional<std::vector<SerialDevice>> list() const {
        return LinuxSerialDevices(tree_.path("sys"), "/dev", tree_.path("dev/agent")).list();
    }

    [[nodiscard]] const SerialDevice* find(const std::vector<SerialDevice>& devices,
                                           const std::string& path) const {
        const auto found =
            std::find_if(devices.begin(), devices.end(),
                         [&path](const SerialDevice& device) { return device.dialInPath == path; });
        return found == devices.end() ? nullptr : &*found;
    }

    TemporaryTree tree_;
};

TEST_F(SerialDevicesTest, TheDeviceOfTheAgentsLinkGoesByTheLink) {
    makePort("vport1p1", "1:3");
    makeVirtioParents();
    makeAgentLink();
    const auto devices = list();
    ASSERT_TRUE(devices);
    ASSERT_EQ(devices->size(), 1U);
    EXPECT_EQ(devices->front().dialInPath, tree_.path("dev/agent"));
}

TEST_F(SerialDevicesTest, DriverClassesComeNearestFirstAndTheConsolesDriverByItsOwnName) {
    makePort("vport1p1", "1:3");
    makeVirtioParents();
    makeAgentLink();
    EXPECT_EQ(list()->front().driverClasses, (Classes{"MirelVirtIOConsole", "virtio-pci"}));
}

TEST_F(SerialDevicesTest, OnlyTheNumberDecidesWhichDeviceIsTheAgents) {
    makePort("vport1p1", "250:1");
    makePort("vport1p2", "1:3");
    makePort("vport1p3", "1:33");
    makeAgentLink();
    const auto devices = list();
    ASSERT_TRUE(devices);
    EXPECT_NE(find(*devices, "/dev/vport1p1"), nullptr);
    EXPECT_EQ(find(*devices, "/dev/vport1p2"), nullptr);
    EXPECT_NE(find(*devices, "/dev/vport1p3"), nullptr);
    EXPECT_NE(find(*devices, tree_.path("dev/agent")), nullptr);
}

TEST_F(SerialDevicesTest, ConsoleWithoutAParentBelongsToTheDriverOfThePorts) {
    makePort("vport1p0", "250:1");
    makeVirtioParents();
    makeConsole("1:3");
    makeAgentLink();
    const auto devices = list();
    ASSERT_TRUE(devices);
    const SerialDevice* console = find(*devices, tree_.path("dev/agent"));
    ASSERT_NE(console, nullptr);
    EXPECT_EQ(console->driverClasses, (Classes{"MirelVirtIOConsole", "virtio-pci"}));
}

TEST_F(SerialDevicesTest, ConsoleWithoutAParentHasNoDriverWhereThereAreNoPorts) {
    makeConsole("1:3");
    makeAgentLink();
    const auto devices = list();
    ASSERT_TRUE(devices);
    const SerialDevice* console = find(*devices, tree_.path("dev/agent"));
    ASSERT_NE(console, nullptr);
    EXPECT_EQ(console->driverClasses, Classes());
}

TEST_F(SerialDevicesTest, WithoutTheLinkEveryDeviceHasItsOwnPath) {
    makePort("vport1p1", "1:3");
    makeSerialLine();
    const auto devices = list();
    ASSERT_TRUE(devices);
    EXPECT_EQ(devices->size(), 2U);
    EXPECT_NE(find(*devices, "/dev/vport1p1"), nullptr);
    EXPECT_NE(find(*devices, "/dev/ttyS0"), nullptr);
}

TEST_F(SerialDevicesTest, AnOtherDriverKeepsItsName) {
    makeSerialLine();
    EXPECT_EQ(list()->front().driverClasses, Classes{"serial8250"});
}

TEST_F(SerialDevicesTest, ALinkToSomethingThatIsNoDeviceMatchesNothing) {
    makePort("vport1p1", "1:3");
    tree_.makeFile("dev/agent", "");
    EXPECT_EQ(list()->front().dialInPath, "/dev/vport1p1");
}

TEST_F(SerialDevicesTest, ADeviceWithoutParentsHasNoDrivers) {
    tree_.makeFile("sys/devices/virtual/tty/tty0/dev", "4:0\n");
    tree_.makeLink("sys/class/tty/tty0", "../../devices/virtual/tty/tty0");
    ASSERT_EQ(list()->size(), 1U);
    EXPECT_EQ(list()->front().driverClasses, Classes{});
}

TEST_F(SerialDevicesTest, ADeviceOutsideTheTreeHasNoDrivers) {
    tree_.makeLink("elsewhere/driver", "../drivers/stranger");
    tree_.makeFile("sys/devices/a/dev", "4:0\n");
    tree_.makeLink("sys/devices/a/device", "../../../elsewhere");
    tree_.makeLink("sys/class/tty/a", "../../devices/a");
    EXPECT_EQ(list()->front().driverClasses, Classes{});
}

TEST_F(SerialDevicesTest, ClassesThatAreEmptyGiveAnEmptyList) {
    tree_.makeDirectory("sys/class");
    ASSERT_TRUE(list());
    EXPECT_TRUE(list()->empty());
}

TEST_F(SerialDevicesTest, WithoutClassesNothingCanBeListed) {
    EXPECT_EQ(list(), std::nullopt);
}

TEST_F(SerialDevicesTest, ThisMachinesOwnDevicesCanBeListed) {
    const auto devices = LinuxSerialDevices().list();
    ASSERT_TRUE(devices);
    EXPECT_NE(find(*devices, "/dev/tty"), nullptr);
}

}  // namespace
}  // namespace corvane
