#include "tests/vm/clients/binding_client.h"

#include <signal.h>
#include <sys/wait.h>

#include <filesystem>
#include <stdexcept>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

namespace corvane::vm {
namespace {

constexpr char name[] = "binding";

}  // namespace

BindingClient::BindingClient(const LibvirtDaemon& daemon, const std::string& guest)
    : daemon_(daemon) {
    const std::filesystem::path path = daemon.directory() / "binding";
    std::filesystem::remove(path);
    const Descriptor listener = listenAt(path);
    // The user that the daemon runs as need not be able to read the sources.
    const std::filesystem::path script = daemon.directory() / "binding_client.py";
    std::filesystem::copy_file(CORVANE_BINDING_CLIENT, script,
                               std::filesystem::copy_options::overwrite_existing);
    daemon.giveAway(script);
    // Debian's own interpreter: the binding is not made for others that there may be.
    process_ = daemon.start(
        "binding",
        {"/usr/bin/python3", script, daemon.uri(), guest, std::to_string(listener.borrow())},
        {listener.borrow()});
    socket_ = LineSocket(path);
    // Once it answers, it also hears of events.
    check({"name"});
}

BindingClient::~BindingClient() {
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
}

boost::json::value BindingClient::call(const boost::json::array& nameAndArguments) {
    try {
        socket_.send(boost::json::serialize(nameAndArguments) + '\n');
        return boost::json::parse(socket_.receiveLine());
    } catch (const std::exception& error) {
        throw std::runtime_error("the client fails: " + std::string(error.what()) + '\n' +
                                 daemon_.errorsOf(name));
    }
}

boost::json::value BindingClient::check(const boost::json::array& nameAndArguments) {
    const boost::json::value answer = call(nameAndArguments);
    if (const boost::json::value* result = answer.as_object().if_contains("result")) {
        return *result;
    }
    throw std::runtime_error(boost::json::serialize(nameAndArguments) + ": " +
                             boost::json::serialize(answer));
}

boost::json::value BindingClient::request(const std::string& command,
                                          const boost::json::object& arguments) {
    const std::string text =
        boost::json::serialize(boost::json::object{{"execute", command}, {"arguments", arguments}});
    return check({"agent", text, 60}).at("return");
}

}  // namespace corvane::vm
