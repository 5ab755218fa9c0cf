// The client's end of the event socket: one connection, one message, with a deadline on everything that waits.
#pragma once

#include "base/UniqueFd.h"

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace Sentrel::ctl {

/// One connection to the daemon's event socket. The daemon takes what arrives in its first read as the message, so a
/// message must leave in one write.
/// Threads: one at a time. Owner: the verb.
class EventSocket {
public:
    using Deadline = std::chrono::steady_clock::time_point;

    /// Connects. @throws Failure when nobody listens there or nobody takes the connection in time.
    EventSocket(std::string path, Deadline deadline);
    EventSocket(const EventSocket&) = delete;
    EventSocket& operator=(const EventSocket&) = delete;

    /// The process that listens, as the system noted it then. None when it is not one that this process can name.
    std::optional<pid_t> listener() const;

    /// Writes all of @p message in one call. Nothing is written for an empty message.
    /// @throws Failure when the peer took less than all of it.
    void sendOnce(std::string_view message);

    /// Tells the peer that nothing more comes, which is what it needs to see the end of an empty message.
    void endSending();

    /// Reads until @p size bytes are there or the peer has closed, and returns what came.
    /// @throws Failure when the deadline comes first.
    std::string receive(std::size_t size);

    /// Waits until the peer closes, which it does when it is done with the message.
    /// @throws Failure when the deadline comes first.
    void waitForClose();

private:
    void limitSending() const;
    bool waitReadable() const;
    void connectTo();

    std::string m_path;
    Deadline m_deadline;
    UniqueFd m_fd;
};

} // namespace Sentrel::ctl
