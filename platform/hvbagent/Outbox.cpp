#include "platform/hvbagent/Outbox.h"

#include "platform/hvbagent/AgentLimits.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

namespace HVBEnterprise::agent {

Outbox::Outbox() : m_wakeFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (m_wakeFd < 0) {
        throw std::system_error(errno, std::generic_category(), "cannot make a wake-up descriptor");
    }
}

Outbox::~Outbox() {
    ::close(m_wakeFd);
}

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
        const std::lock_guard lock(m_mutex);
        if (!m_connected || m_waiting.size() >= kMaxWaitingPublications) {
            dropOlder(publication.topic);
        }
        m_waiting.push_back(std::move(publication));
    }
    wake();
}

std::optional<Publication> Outbox::take() {
    const std::lock_guard lock(m_mutex);
    if (m_waiting.empty()) {
        return std::nullopt;
    }
    Publication next = std::move(m_waiting.front());
    m_waiting.pop_front();
    return next;
}

void Outbox::putBack(Publication publication) {
    const std::lock_guard lock(m_mutex);
    const bool newer = std::any_of(m_waiting.begin(), m_waiting.end(),
                                   [&](const Publication& waiting) { return waiting.topic == publication.topic; });
    if (!newer) {
        m_waiting.push_front(std::move(publication));
    }
}

void Outbox::wake() const noexcept {
    const int saved = errno;
    (void)::eventfd_write(m_wakeFd, 1); // fails only when a wake-up is waiting already
    errno = saved;
}

void Outbox::takeWake() const noexcept {
    eventfd_t value = 0;
    (void)::eventfd_read(m_wakeFd, &value);
}

} // namespace HVBEnterprise::agent
