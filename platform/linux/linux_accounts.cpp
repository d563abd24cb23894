#include "platform/linux/linux_accounts.h"

#include <grp.h>
#include <pwd.h>

#include "platform/linux/account_lookup.h"

namespace corvane {
namespace {

bool hasNul(const std::string& name) {
    return name.find('\0') != std::string::npos;
}

}  // namespace

// The plain lookups, not the reentrant ones: only one thread asks, and these find room for an entry
// of any size by themselves.

SystemResult<std::optional<uid_t>> LinuxAccounts::userById(uid_t id) {
    return lookUp(&passwd::pw_uid, [id] { return ::getpwuid(id); });
}

SystemResult<std::optional<uid_t>> LinuxAccounts::userByName(const std::string& name) {
    if (hasNul(name)) {
        return std::optional<uid_t>();
    }
    return lookUp(&passwd::pw_uid, [&name] { return ::getpwnam(name.c_str()); });
}

SystemResult<std::optional<gid_t>> LinuxAccounts::groupById(gid_t id) {
    return lookUp(&group::gr_gid, [id] { return ::getgrgid(id); });
}

SystemResult<std::optional<gid_t>> LinuxAccounts::groupByName(const std::string& name) {
    if (hasNul(name)) {
        return std::optional<gid_t>();
    }
    return lookUp(&group::gr_gid, [&name] { return ::getgrnam(name.c_str()); });
}

}  // namespace corvane
