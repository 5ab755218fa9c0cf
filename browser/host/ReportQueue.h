// Records on their way to the daemon.
#pragma once

#include "base/UniqueFd.h"
#include "events/STEventData.h"

#include <poll.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <utility>

namespace Sentrel::host {

/// Most records that wait. A user who answers for each page reaches it in minutes without a daemon.
inline constexpr std::size_t kMaxQueuedReports = 256;

/// Sends records over the event socket, a connection each, one after the other and in order; never waits itself. The
/// daemon closes a connection when it has read the record; one that it did not read is sent again. While the daemon is
/// away, or somebody else holds its socket, records wait.
/// Threads: one at a time. Owner: the loop.
class ReportQueue {
public:
    using Time = std::chrono::steady_clock::time_point;
    /// Gets a line for people.
    using Tell = std::function<void(const std::string& line)>;

    ReportQueue(std::string socketPath, Tell tell) : m_path(std::move(socketPath)), m_tell(std::move(tell)) {}

    /// Puts @p record behind the others. When there is no room the oldest that is not under way is dropped.
    void add(const STEventData& record);
    /// How many were dropped.
    std::uint64_t lost() const { return m_lost; }
    bool isEmpty() const { return m_records.empty(); }
    /// How many the daemon is not known to have read.
    std::size_t unread() const { return m_records.size(); }

    /// What proceed waits for, besides until(); -1 when nothing.
    pollfd descriptor() const { return {m_connection.get(), POLLIN, 0}; }
    /// When proceed is to be called in any case.
    Time until() const;
    /// Goes as far as it gets without waiting.
    void proceed();

private:
    bool connect();
    bool isRead();
    void tryAgain(const char* what, int error);

    const std::string m_path;
    const Tell m_tell;
    std::deque<STEventData> m_records; ///< the first one is under way while there is a connection
    UniqueFd m_connection;
    Time m_next{};
    std::chrono::milliseconds m_pause{0};
    std::uint64_t m_lost = 0;
    bool m_hasToldTrouble = false;
};

} // namespace Sentrel::host
