#pragma once

#include "platform/accounts.h"

namespace corvane {

/// Users and groups as the guest's name services (nsswitch.conf(5)) know them.
class LinuxAccounts final : public Accounts {
 public:
    SystemResult<std::optional<uid_t>> userById(uid_t id) override;
    SystemResult<std::optional<uid_t>> userByName(const std::string& name) override;
    SystemResult<std::optional<gid_t>> groupById(gid_t id) override;
    SystemResult<std::optional<gid_t>> groupByName(const std::string& name) override;
};

}  // namespace corvane
