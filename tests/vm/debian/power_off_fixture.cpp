#include "tests/vm/debian/power_off_fixture.h"

#include <iostream>

#include "tests/vm/support/checksum.h"
#include "tests/vm/support/file_client.h"

namespace corvane::vm {
namespace {

constexpr char hostsFile[] = "/root/from-the-host";
constexpr char orderFile[] = "/root/order";

/// Two services that leave a mark when they are stopped, the inner one first. The mark is only
/// written by a system that goes down in order.
constexpr char makeServices[] = R"sh(
make() {  # NAME ORDER
    cat >/etc/systemd/system/$1.service <<TEXT
[Unit]
$2
[Service]
Type=oneshot
RemainAfterExit=yes
ExecStart=/bin/true
ExecStop=/bin/sh -c 'echo "$1 \$(cat /root/round)" >>/root/order'
[Install]
WantedBy=multi-user.target
TEXT
}
if ! [ -e /etc/systemd/system/inner.service ]; then
    make outer
    make inner After=outer.service
    systemctl daemon-reload
    systemctl enable -q --now outer.service inner.service
fi
)sh";

}  // namespace

void PowerOffTest::SetUp() {
    DebianTest::SetUp();
    round_ = ::testing::UnitTest::GetInstance()->current_test_info()->name();
    shell().check(makeServices);
    shell().check(std::string("rm -f ") + hostsFile + ' ' + orderFile + "; echo " + round_ +
                  " >/root/round; sync");
}

void PowerOffTest::writeFile(HostClient& host) {
    bytes_.clear();
    for (int line = 0; line < 4000; ++line) {
        bytes_ += round_ + ", line " + std::to_string(line) + '\n';
    }
    FileClient files(host);
    const auto handle = files.open(hostsFile, "w");
    files.write(handle, bytes_);
    files.flush(handle);
    files.close(handle);
}

std::string PowerOffTest::expectedOrder() const {
    return "inner " + round_ + "\nouter " + round_ + '\n';
}

void PowerOffTest::showTime(const char* what) const {
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start_;
    std::cout << "[   INFO   ] " << what << " after " << taken.count() << " s" << std::endl;
}

void PowerOffTest::expectPoweredOffInOrder() {
    const std::string event = machine().qmp().awaitEvent("SHUTDOWN");
    EXPECT_NE(event.find("\"guest-shutdown\""), std::string::npos) << event;
    machine().awaitEnd();
    showTime("off");
    EXPECT_TRUE(disk().isClean());
    EXPECT_EQ(disk().readFile(orderFile), expectedOrder());
    EXPECT_TRUE(disk().readFile(hostsFile) == bytes_);
}

void PowerOffTest::expectRestartedInOrder() {
    const std::string event = machine().qmp().awaitEvent("RESET");
    EXPECT_NE(event.find("\"guest-reset\""), std::string::npos) << event;
    showTime("reset");
    machine().awaitRestart();
    showTime("running again");
    EXPECT_EQ(shell().check(std::string("cat ") + orderFile) + '\n', expectedOrder());
    EXPECT_EQ(shell().check(std::string("sha256sum <") + hostsFile), sha256(bytes_) + "  -");
    EXPECT_EQ(shell().check("dmesg | grep -c 'EXT4-fs.*recovery complete' || true"), "0");
}

}  // namespace corvane::vm
