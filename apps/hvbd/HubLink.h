// hvbd's own connection to the bus, which comes back by itself.
#pragma once

#include "apps/hvbd/EventLoop.h"
#include "apps/hvbd/SystemLog.h"

#include <chrono>
#include <functional>
#include <string>

namespace HVB::hub {

/// Keeps one connection that owns the hub's name. When the bus goes away, it tries to connect again, with a pause that
/// doubles up to kLastReconnectPause. While one attempt waits for the bus, the loop stands still for at most
/// kConnectTimeout.
/// Threads: the loop's. Owner: the program; what it was given outlives it.
class HubLink {
public:
    struct Users {
        /// Called with each new connection, before the name is taken and the first call can arrive.
        std::function<void(sd_bus&)> connected;
        /// Called before a connection is given up. Must not throw.
        std::function<void()> lost;
    };

    HubLink(sd_event& event, std::string socketPath, Users users, const SystemLog& log);
    ~HubLink();
    HubLink(const HubLink&) = delete;
    HubLink& operator=(const HubLink&) = delete;

    /// Connects and takes the name, now. @throws HVBException as openBus does; -EACCES when the bus refuses the name,
    /// -EEXIST when another process has it.
    void connect();

    /// Sends what waits to be sent, and closes the connection for good.
    void end() noexcept;

private:
    static int onDisconnected(sd_bus_message* message, void* self, sd_bus_error* error);
    static int onRetry(sd_event_source* source, std::uint64_t usec, void* self);

    void serve(sd_bus& bus);
    void dropConnection() noexcept;
    void retryAfter(std::chrono::milliseconds pause);
    void retry();

    // Constant after construction.
    sd_event& m_event;
    const std::string m_socketPath;
    const Users m_users;
    const SystemLog& m_log;
    // Plain, single access.
    bus::BusPtr m_bus;
    SlotPtr m_disconnected;
    SourcePtr m_retry;
    std::chrono::milliseconds m_pause{0};
};

} // namespace HVB::hub
