// What the host says to its browser, on the way.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

namespace Sentrel::host {

/// Writes messages to a descriptor without ever waiting for its reader. A long message leaves in pieces; short ones
/// overtake it between two of them, so that an answer does not wait for a list. Long ones leave one after the other.
/// Threads: one at a time. Owner: the loop; the descriptor outlives it.
class HostOutput {
public:
    /// Has writes to @p fd wait no more. @throws std::system_error when the system refuses.
    explicit HostOutput(int fd);

    /// Takes a message of valid UTF-8, to be written by write.
    void put(std::string message);

    /// Writes as much as the reader takes. @throws std::system_error when nothing can be written any more.
    void write();

    int fd() const { return m_fd; }
    bool isDone() const { return m_written == m_frame.size() && m_short.empty() && m_long.empty(); }
    /// Whether a message is leaving in pieces, or is to.
    bool hasLong() const { return !m_long.empty(); }
    /// Bytes of all messages that have not left whole.
    std::size_t waiting() const { return m_waiting; }

private:
    bool nextFrame();

    const int m_fd;
    std::string m_frame; ///< is being written
    std::size_t m_written = 0;
    std::deque<std::string> m_short;
    std::deque<std::string> m_long;
    std::size_t m_waiting = 0;
    // Of the first long one.
    std::uint64_t m_number = 1;
    std::size_t m_begin = 0;
    std::size_t m_index = 0;
    std::size_t m_count = 0;
};

} // namespace Sentrel::host
