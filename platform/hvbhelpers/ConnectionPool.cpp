#include "platform/hvbhelpers/ConnectionPool.h"

#include "platform/hvbhelpers/CallbackWorkers.h"
#include "platform/hvbhelpers/HubLimits.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

namespace HVB::detail {
namespace {

/// Handles what has arrived since the last call, which also shows whether the other end is still there.
bool isAlive(sd_bus& bus) {
    int processed = 0;
    while ((processed = sd_bus_process(&bus, nullptr)) > 0) {
    }
    return processed == 0 && sd_bus_is_ready(&bus) > 0;
}

bool hasUnsent(sd_bus& bus) {
    std::uint64_t queued = 0;
    return sd_bus_get_n_queued_write(&bus, &queued) >= 0 && queued > 0;
}

void flush(sd_bus& bus, bus::Deadline deadline) {
    while (hasUnsent(bus)) {
        const int processed = sd_bus_process(&bus, nullptr);
        bus::check(processed == -EINTR ? 0 : processed, "cannot send to the hub");
        if (processed > 0 || !hasUnsent(bus)) {
            continue;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            bus::check(-ETIMEDOUT, "cannot send to the hub");
        }
        bus::sleepUntilReady(bus::busWait(bus), deadline, -1);
    }
}

} // namespace

/// A connection in use. It goes back to the pool only when it was released; otherwise it is closed.
class ConnectionPool::Lease {
public:
    Lease(ConnectionPool& pool, bus::Deadline connectDeadline) : m_pool(pool), m_bus(pool.takeIdle()) {
        if (m_bus == nullptr) {
            m_bus = bus::openBus(pool.m_socketPath, connectDeadline);
        }
        if (CallbackWorkers::isWorker()) {
            enlist();
        }
    }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    ~Lease() {
        if (m_enlisted != -1) {
            const Sentrel::MutexLock lock(m_pool.m_mutex);
            const auto own = std::find(m_pool.m_callbackSockets.begin(), m_pool.m_callbackSockets.end(), m_enlisted);
            m_pool.m_callbackSockets.erase(own);
        }
        if (m_reusable) {
            m_pool.giveBack(std::move(m_bus));
        }
    }

    sd_bus& bus() { return *m_bus; }
    void release() { m_reusable = true; }

private:
    void enlist() {
        const Sentrel::MutexLock lock(m_pool.m_mutex);
        if (m_pool.m_callbacksEnded) {
            throw HVBException(-ECANCELED, "the hub client has ended");
        }
        const int socket = sd_bus_get_fd(m_bus.get());
        bus::check(socket, "the connection to the hub is closed");
        m_pool.m_callbackSockets.push_back(socket);
        m_enlisted = socket;
    }

    ConnectionPool& m_pool;
    bus::BusPtr m_bus;
    int m_enlisted = -1; ///< the socket in the pool's list; a connection that was closed does not know it any more
    bool m_reusable = false;
};

void ConnectionPool::call(const Make& make, const Read& read, bus::Deadline deadline, bus::Deadline connectDeadline) {
    Lease lease(*this, connectDeadline);
    bus::MessagePtr reply;
    try {
        const bus::MessagePtr request = make(lease.bus());
        reply = bus::callAlone(lease.bus(), *request, deadline);
    } catch (const bus::CallError& error) {
        if (bus::isStillUsable(lease.bus(), error)) {
            lease.release();
        }
        throw;
    }
    read(*reply);
    // A message belongs to its connection: it is freed before the next caller gets the connection.
    reply.reset();
    lease.release();
}

void ConnectionPool::post(const Make& make, bus::Deadline deadline) {
    Lease lease(*this, deadline);
    {
        const bus::MessagePtr message = make(lease.bus());
        bus::check(sd_bus_send(&lease.bus(), message.get(), nullptr), "cannot send to the hub");
    }
    flush(lease.bus(), deadline);
    lease.release();
}

void ConnectionPool::endCallsOfCallbacks() {
    const Sentrel::MutexLock lock(m_mutex);
    m_callbacksEnded = true;
    for (const int socket : m_callbackSockets) {
        // Whoever waits on it meets the end of the stream. The owner closes it after taking it off the list.
        (void)::shutdown(socket, SHUT_RDWR);
    }
}

bus::BusPtr ConnectionPool::takeIdle() {
    for (;;) {
        bus::BusPtr bus;
        {
            const Sentrel::MutexLock lock(m_mutex);
            if (m_idle.empty()) {
                return nullptr;
            }
            bus = std::move(m_idle.back());
            m_idle.pop_back();
        }
        if (isAlive(*bus)) {
            return bus;
        }
    }
}

void ConnectionPool::giveBack(bus::BusPtr bus) {
    const Sentrel::MutexLock lock(m_mutex);
    if (m_idle.size() < kMaxIdleConnections) {
        m_idle.push_back(std::move(bus));
    }
}

} // namespace HVB::detail
