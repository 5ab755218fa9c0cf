// How a client that ends reaches whoever works for it.
#pragma once

#include "base/WakeUp.h"

#include <atomic>
#include <memory>

namespace HVBEnterprise::agent {

/// Once begun it stays so. Threads: thread-safe. Owner: the client's worker.
class BreakOff {
public:
    /// @throws std::system_error when the system has no descriptor to give.
    BreakOff() = default;

    void begin() {
        *m_flag = true;
        m_wake.wake();
    }
    bool hasBegun() const { return *m_flag; }

    /// For look-ups in a document.
    std::shared_ptr<const std::atomic<bool>> flag() const { return m_flag; }
    /// For waits: readable from the beginning on. Nobody takes it.
    int fd() const { return m_wake.fd(); }

private:
    const std::shared_ptr<std::atomic<bool>> m_flag = std::make_shared<std::atomic<bool>>(false);
    const Sentrel::WakeUp m_wake;
};

} // namespace HVBEnterprise::agent
