#include "platform/hvbagent/Outbox.h"

#include "platform/hvbagent/AgentLimits.h"

#include <algorithm>
#include <utility>

namespace HVBEnterprise::agent {

bool Outbox::dropOlder(const std::string& topic) {
    const auto older = std::find_if(m_waiting.begin(), m_waiting.end(),
                                    [&](const Publication& waiting) { return waiting.topic == topic; });
    if (older == m_waiting.end()) {
        return false;
    }
    m_waiting.erase(older);
    return true;
}

void Outbox::post(Publication publication) {
    {
        const Sentrel::MutexLock lock(m_mutex);
        if (!m_connected || m_waiting.size() >= kMaxWaitingPublications) {
            dropOlder(publication.topic);
        }
        m_waiting.push_back(std::move(publication));
    }
    wake();
}

std::optional<Publication> Outbox::take() {
    const Sentrel::MutexLock lock(m_mutex);
    if (m_waiting.empty()) {
        return std::nullopt;
    }
    Publication next = std::move(m_waiting.front());
    m_waiting.pop_front();
    return next;
}

void Outbox::putBack(Publication publication) {
    const Sentrel::MutexLock lock(m_mutex);
    const bool newer = std::any_of(m_waiting.begin(), m_waiting.end(),
                                   [&](const Publication& waiting) { return waiting.topic == publication.topic; });
    if (!newer) {
        m_waiting.push_front(std::move(publication));
    }
}

} // namespace HVBEnterprise::agent
