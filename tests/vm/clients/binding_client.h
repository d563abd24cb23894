#pragma once

#include <sys/types.h>

#include <string>

#include <boost/json/array.hpp>
#include <boost/json/value.hpp>

#include "tests/vm/clients/client_guest.h"

namespace corvane::vm {

/// A running binding_client.py: one connection to libvirt for as long as this lives.
class BindingClient {
 public:
    BindingClient(const LibvirtDaemon& daemon, const std::string& guest);
    BindingClient(const BindingClient&) = delete;
    BindingClient& operator=(const BindingClient&) = delete;
    ~BindingClient();

    /// Makes a call, {"NAME", ARGUMENT...}, and returns all of its answer.
    boost::json::value call(const boost::json::array& nameAndArguments);
    /// The result of a call; throws when libvirt refuses it.
    boost::json::value check(const boost::json::array& nameAndArguments);
    /// What the agent returns for a request; throws when it refuses it.
    boost::json::value request(const std::string& command, const boost::json::object& arguments);

 private:
    const LibvirtDaemon& daemon_;
    pid_t process_ = -1;
    LineSocket socket_;
};

}  // namespace corvane::vm
