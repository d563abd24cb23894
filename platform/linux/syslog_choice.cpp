#include "platform/linux/syslog_log.h"
#include "platform/linux/system_log_choice.h"

namespace corvane {

std::unique_ptr<SystemLog> makeSystemLog() {
    return std::make_unique<SyslogLog>();
}

}  // namespace corvane
