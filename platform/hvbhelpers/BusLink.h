// A service's connection to the bus, which comes back by itself: hvbd's and the settings keeper's.
#pragma once

#include "platform/hvbhelpers/BusConnection.h"
#include "platform/hvbhelpers/EventLoop.h"

#include <chrono>
#include <functional>
#include <string>

namespace HVB::bus {

/// Keeps one connection that owns a name. When the bus goes away, it tries to connect again, with a pause that doubles
/// up to two seconds. While one attempt waits for the bus, the loop stands still for at most a second.
/// Threads: the loop's. Owner: the program; what it was given outlives it.
class BusLink {
public:
    struct Service {
        std::string busName;
        std::string program; ///< as in "PROGRAM tries to reach it again"
        std::string what;    ///< as in "another process is WHAT already"
    };
    struct Users {
        /// Called with each new connection, before the name is taken and the first call can arrive.
        std::function<void(sd_bus&)> connected;
        /// Called before a connection is given up. Must not throw.
        std::function<void()> lost;
        /// Gets a line for the system log, with its priority of syslog(3).
        std::function<void(int, const std::string&)> tell;
    };

    BusLink(sd_event& event, std::string socketPath, Service service, Users users);
    ~BusLink();
    BusLink(const BusLink&) = delete;
    BusLink& operator=(const BusLink&) = delete;

    /// Connects and takes the name, now. @throws HVBException as openBus does; -EACCES when the bus refuses the name,
    /// -EEXIST when another process has it.
    void connect();
    /// As connect, but tries again, as after a lost connection, until it succeeds. What waiting alone does not mend, a
    /// name that is refused, it tells. @throws HVBException when the loop takes no timer.
    void connectSoon();

    /// Sends what waits to be sent, and closes the connection for good.
    void end() noexcept;

private:
    static int onDisconnected(sd_bus_message* message, void* self, sd_bus_error* error);
    static int onRetry(sd_event_source* source, std::uint64_t usec, void* self);

    void takeName(sd_bus& bus) const;
    void serve(sd_bus& bus);
    void dropConnection() noexcept;
    void retryAfter(std::chrono::milliseconds pause);
    void retry();
    void tellRefusal(const HVBException& error);
    void logFailure(const char* why) noexcept;
    template <class Body>
    int guarded(Body&& body) noexcept;

    // Constant after construction.
    sd_event& m_event;
    const std::string m_socketPath;
    const Service m_service;
    const Users m_users;
    // Plain, single access.
    BusPtr m_bus;
    SlotPtr m_disconnected;
    SourcePtr m_retry;
    bool m_wasLost = false;
    std::string m_told; ///< the last refusal
    std::chrono::milliseconds m_pause{0};
};

} // namespace HVB::bus
