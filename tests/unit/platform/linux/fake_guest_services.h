#pragma once

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <systemd/sd-bus.h>

#include "core/descriptor_guard.h"

namespace corvane {

/// What login1, systemd1 and PolicyKit1 of a guest say, and what they were asked. Set it up before
/// it is served. Methods may be called by any thread.
class FakeGuestServices {
 public:
    std::map<std::string, std::string> fileStates;    ///< of units; the others do not exist
    std::map<std::string, std::string> activeStates;  ///< of units; "inactive" otherwise
    std::string systemState = "running";
    bool preparingForShutdown = false;          ///< login1's
    std::string scheduledShutdown;              ///< login1's: "poweroff" and the like
    std::set<std::string> queuedUnits;          ///< with a job that nobody here has asked for
    std::set<std::string> allowedActions;       ///< polkit's
    std::map<std::string, std::string> errors;  ///< answers by name, where not what is asked for
    std::set<std::string> unanswered;           ///< methods that never answer
    std::string activationError;  ///< why a service that the bus wants started cannot be
    std::atomic<int> activationRequests = 0;
    bool jobsEndAtOnce = true;

    /// The calls so far: "systemd1.StartUnit ssh.service replace". Pings and what the bus itself is
    /// asked are not among them.
    [[nodiscard]] std::vector<std::string> calls();

    /// Those that are no mere questions for a property.
    [[nodiscard]] std::vector<std::string> orders();

    /// Waits until one that begins like this has come.
    void awaitCall(const std::string& beginning);

    /// For servers: answers a message, and tells whether it did.
    bool answer(sd_bus_message* call);
    /// For servers: the jobs, by their ids, that are to be told to have ended.
    std::vector<unsigned> takeEndedJobs();

 private:
    friend class FakeServer;

    void refuseActivation(sd_bus_message* request);
    int reply(sd_bus_message* call, const std::string& member);
    int replyWithProperty(sd_bus_message* call);
    int replyWithJob(sd_bus_message* call);

    std::mutex lock_;
    std::condition_variable changed_;
    std::vector<std::string> calls_;
    std::vector<unsigned> jobs_;
    unsigned lastJob_ = 0;
    bool subscribed_ = false;  ///< signals go to those who have asked for them
};

/// A thread that serves them: on a bus under names that it takes there, or on a socket of its own,
/// to one caller after the other.
class FakeServer {
 public:
    struct OnBus {
        std::string address;
        std::vector<std::string> names;
    };
    struct OnSocket {
        std::string path;
    };

    /// They are there when the constructor returns. Borrows the services.
    FakeServer(FakeGuestServices& services, const OnBus& place);
    FakeServer(FakeGuestServices& services, const OnSocket& place);
    ~FakeServer();
    FakeServer(const FakeServer&) = delete;
    FakeServer& operator=(const FakeServer&) = delete;

    /// Lets the jobs that were held back end.
    void endJobs();

 private:
    void serve(sd_bus* bus);
    void serveCallers();
    bool awaitInput(int descriptor, short events) const;

    FakeGuestServices& services_;
    DescriptorGuard wake_;
    DescriptorGuard listener_;
    std::atomic<bool> stopping_ = false;
    std::thread thread_;
};

}  // namespace corvane
