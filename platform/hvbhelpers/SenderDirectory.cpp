#include "platform/hvbhelpers/SenderDirectory.h"

#include "platform/hvbhelpers/HubLimits.h"

#include <new>
#include <utility>

namespace HVB::detail {

std::optional<uid_t> SenderDirectory::userOf(const std::string& connection) const {
    const auto found = m_users.find(connection);
    return found != m_users.end() ? std::optional(found->second) : std::nullopt;
}

SenderDirectory::Held SenderDirectory::hold(const std::string& connection, CommandMessage& call) {
    const std::size_t bytes = call.payload.bytes();
    if (m_held >= kMaxUnknownCalls || m_heldBytes + bytes > kMaxUnknownBytes) {
        return Held::No;
    }
    std::vector<CommandMessage>& calls = m_waiting[connection];
    if (calls.size() >= kMaxUnknownCallsOfConnection) {
        return Held::No;
    }
    calls.push_back(std::move(call));
    ++m_held;
    m_heldBytes += bytes;
    return calls.size() == 1 ? Held::First : Held::Later;
}

/// Without memory for it the bus is asked again.
void SenderDirectory::note(const std::string& connection, uid_t user) noexcept {
    try {
        // The bus never gives a connection's name to another one, so what is known stays true.
        if (m_users.contains(connection)) {
            return;
        }
        m_order.push_back(connection);
        if (m_order.size() > kMaxKnownSenders) {
            m_users.erase(m_order.front());
            m_order.pop_front();
        }
        m_users.emplace(connection, user);
    } catch (const std::bad_alloc&) {
        return;
    }
}

std::vector<CommandMessage> SenderDirectory::learn(const std::string& connection, std::optional<uid_t> user) {
    if (user) {
        note(connection, *user);
    }
    const auto waiting = m_waiting.extract(connection);
    if (waiting.empty()) {
        return {};
    }
    m_held -= waiting.mapped().size();
    for (const CommandMessage& call : waiting.mapped()) {
        m_heldBytes -= call.payload.bytes();
    }
    return std::move(waiting.mapped());
}

void SenderDirectory::clear() {
    m_users.clear();
    m_order.clear();
    m_waiting.clear();
    m_held = 0;
    m_heldBytes = 0;
}

} // namespace HVB::detail
