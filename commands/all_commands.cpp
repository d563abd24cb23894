#include "commands/all_commands.h"

#include "commands/exec/exec.h"
#include "commands/exec/exec_status.h"
#include "commands/exec/signal_pid.h"
#include "commands/files/file_close.h"
#include "commands/files/file_flush.h"
#include "commands/files/file_open.h"
#include "commands/files/file_read.h"
#include "commands/files/file_seek.h"
#include "commands/files/file_write.h"
#include "commands/files/vsock_transfer.h"
#include "commands/handshake/info.h"
#include "commands/handshake/ping.h"
#include "commands/handshake/sync.h"
#include "commands/system/guest_time.h"
#include "commands/system/interface_report.h"
#include "commands/system/remote_login_switch.h"
#include "commands/system/shutdown.h"

namespace corvane {

namespace {
constexpr auto always = ReportCondition::always;
constexpr auto ifVsock = ReportCondition::ifVsock;
constexpr auto ifRemoteLogin = ReportCondition::ifRemoteLogin;
}  // namespace

// The name, its handler, its place in the list of "guest-info", and when it is listed there.
constexpr std::array<Command, 20> allCommands{{
    {"guest-sync", handleGuestSync, 4, always},
    {"guest-sync-delimited", handleGuestSyncDelimited, 5, always},
    {"guest-info", handleGuestInfo, 3, always},
    {"guest-ping", handleGuestPing, 6, always},
    {"guest-exec", handleGuestExec, 1, always},
    {"guest-exec-status", handleGuestExecStatus, 2, always},
    {"guest-file-open", handleGuestFileOpen, 7, always},
    {"guest-file-close", handleGuestFileClose, 8, always},
    {"guest-file-read", handleGuestFileRead, 9, always},
    {"guest-file-write", handleGuestFileWrite, 10, always},
    {"mirel-guest-file-vsock-read", handleGuestFileVSockRead, 11, ifVsock},
    {"mirel-guest-file-vsock-write", handleGuestFileVSockWrite, 12, ifVsock},
    {"guest-file-seek", handleGuestFileSeek, 13, always},
    {"guest-file-flush", handleGuestFileFlush, 14, always},
    {"guest-network-get-interfaces", handleGuestNetworkGetInterfaces, 15, always},
    {"guest-shutdown", handleGuestShutdown, 16, always},
    {"guest-set-time", handleGuestSetTime, 18, always},
    {"guest-get-time", handleGuestGetTime, 19, always},
    {"mirel-guest-set-remote-login", handleGuestSetRemoteLogin, 17, ifRemoteLogin},
    {"mirel-guest-signal-pid", handleGuestSignalPid, 20, always},
}};

}  // namespace corvane
