#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "core/system_result.h"

namespace corvane {

/// The guest's database of users and groups. Main thread.
///
/// Each lookup answers the id of the entry, nothing when there is no such entry, or the errno value
/// of a lookup that failed. A name is taken with all its bytes: one with a NUL in it is nobody's.
class Accounts {
 public:
    virtual ~Accounts() = default;

    virtual SystemResult<std::optional<uid_t>> userById(uid_t id) = 0;
    virtual SystemResult<std::optional<uid_t>> userByName(const std::string& name) = 0;
    virtual SystemResult<std::optional<gid_t>> groupById(gid_t id) = 0;
    virtual SystemResult<std::optional<gid_t>> groupByName(const std::string& name) = 0;
};

}  // namespace corvane
