// Whose connection is whose: the bus tells it, once a connection, and until then the connection's calls wait here.
#pragma once

#include "platform/hvbhelpers/Carriers.h"

#include <sys/types.h>

#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace HVB::detail {

/// The users behind the connections that have called, and the calls of those that the bus has been asked about.
/// Threads: one at a time. Owner: the link, for the length of a connection to the bus.
class SenderDirectory {
public:
    /// None when the bus has not told it.
    std::optional<uid_t> userOf(const std::string& connection) const;

    enum class Held {
        First, ///< the bus is to be asked about this connection
        Later, ///< it has been asked
        No,    ///< too much waits
    };
    /// Keeps a call of a connection whose user is not known. On No the call is left with the caller.
    Held hold(const std::string& connection, CommandMessage& call);

    /// Notes what the bus told; none when it told nothing, and then the next call asks again.
    /// @return the calls that waited for it, in the order of their arrival.
    std::vector<CommandMessage> learn(const std::string& connection, std::optional<uid_t> user);

    /// Forgets everything. Calls that wait are dropped.
    void clear();

private:
    void note(const std::string& connection, uid_t user) noexcept;

    // plain, single access
    std::map<std::string, uid_t> m_users;
    std::deque<std::string> m_order; ///< of m_users, the oldest first
    std::map<std::string, std::vector<CommandMessage>> m_waiting;
    std::size_t m_held = 0;      ///< calls in m_waiting
    std::size_t m_heldBytes = 0; ///< of these
};

} // namespace HVB::detail
