// Lets a verb wait for the hub's events about changed preferences.
#pragma once

#include "base/Mutex.h"
#include "base/WakeUp.h"
#include "hub/HVBInterfaces.h"

#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace Sentrel::ctl {

/// Takes events from the broker and makes a descriptor readable.
/// Threads: handleEventNotification on those of the broker; the rest on one. Owner: the verb; it outlives the broker.
class ChangeBell : public HVB::EventInterface {
public:
    /// @throws Failure when the system has no such descriptor to give.
    ChangeBell();
    ChangeBell(const ChangeBell&) = delete;
    ChangeBell& operator=(const ChangeBell&) = delete;

    bool handleEventNotification(HVB::EventData& event) override;

    /// Has the process's broker deliver the events with @p ids here from now on.
    /// @throws HVB::HVBException when the hub cannot be reached.
    void subscribe(const std::string& socketPath, std::initializer_list<std::int32_t> ids);

    /// Readable while there are events that take has not given.
    int fd() const { return m_rung.fd(); }

    /// Waits until there are such events. @return false when the deadline came first.
    bool waitUntil(std::chrono::steady_clock::time_point deadline) const;

    /// The ids of the events that came since the last call, the oldest first.
    std::vector<std::int32_t> take();

private:
    WakeUp m_rung; // own locking

    Mutex m_mutex;
    std::vector<std::int32_t> m_events SENTREL_GUARDED_BY(m_mutex);
};

} // namespace Sentrel::ctl
