// Connections for sending. Each call has one to itself; afterwards it is kept for the next call.
#pragma once

#include "base/Mutex.h"
#include "platform/hvbhelpers/BusConnection.h"

#include <functional>
#include <string>
#include <vector>

namespace HVB::detail {

/// Unnamed connections to one bus. A call has its connection to itself, so a slow one holds up nobody else.
/// Threads: thread-safe. Owner: the broker.
class ConnectionPool {
public:
    using Make = std::function<bus::MessagePtr(sd_bus&)>;
    using Read = std::function<void(sd_bus_message&)>;

    explicit ConnectionPool(std::string socketPath) : m_socketPath(std::move(socketPath)) {}
    ConnectionPool(const ConnectionPool&) = delete;
    ConnectionPool& operator=(const ConnectionPool&) = delete;

    /// Sends the call that @p make makes and gives the reply to @p read. A message that may have been delivered is
    /// never sent again.
    /// @param connectDeadline when to give up connecting, if no connection is at hand.
    /// @throws HVBException, in particular what openBus and call throw, and what @p make and @p read throw.
    void call(const Make& make, const Read& read, bus::Deadline deadline, bus::Deadline connectDeadline);

    /// Sends the one-way message that @p make makes, and returns when it has left this process.
    /// @throws HVBException as call does.
    void post(const Make& make, bus::Deadline deadline);

    /// Ends the calls that callbacks are waiting in, which then throw, and refuses new ones from callbacks. Other
    /// callers are not affected.
    void endCallsOfCallbacks();

private:
    class Lease;

    bus::BusPtr takeIdle();
    void giveBack(bus::BusPtr bus);

    const std::string m_socketPath;

    Sentrel::Mutex m_mutex;

    std::vector<bus::BusPtr> m_idle SENTREL_GUARDED_BY(m_mutex);
    std::vector<int> m_callbackSockets SENTREL_GUARDED_BY(m_mutex); ///< in use by callbacks
    bool m_callbacksEnded SENTREL_GUARDED_BY(m_mutex) = false;
};

} // namespace HVB::detail
