// What waits to be published, between the threads that make it and the one that has the connection.
#pragma once

#include "base/Mutex.h"
#include "base/WakeUp.h"

#include <atomic>
#include <deque>
#include <optional>
#include <string>

namespace HVBEnterprise::agent {

/// A retained message.
struct Publication {
    std::string topic;
    std::string payload;
};

/// Messages that wait for the connection, which is woken when one comes. While there is none, and when many wait, a new
/// message replaces an older one for the same topic: each is retained, so only the last counts.
/// Threads: thread-safe. Owner: the callback thread and the network thread, together.
class Outbox {
public:
    /// @throws std::system_error when the system has no descriptor to give.
    Outbox() = default;
    Outbox(const Outbox&) = delete;
    Outbox& operator=(const Outbox&) = delete;

    void post(Publication publication);
    /// Takes the next message out.
    std::optional<Publication> take();
    /// Puts back one that may not have arrived, unless a newer one for its topic waits.
    void putBack(Publication publication);

    /// Whether the broker has taken this machine in.
    bool isConnected() const { return m_connected; }
    void setConnected(bool connected) { m_connected = connected; }

    /// Wakes the network thread. Keeps errno.
    void wake() const noexcept { m_wake.wake(); }
    /// Becomes readable at a wake-up, and stays so until it is taken.
    int wakeFd() const { return m_wake.fd(); }
    void takeWake() const noexcept { m_wake.take(); }

private:
    bool dropOlder(const std::string& topic) SENTREL_REQUIRES(m_mutex);

    // own locking
    Sentrel::WakeUp m_wake;
    std::atomic<bool> m_connected{false};

    Sentrel::Mutex m_mutex;
    std::deque<Publication> m_waiting SENTREL_GUARDED_BY(m_mutex);
};

} // namespace HVBEnterprise::agent
