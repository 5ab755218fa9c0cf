// The threads on which the broker calls into the module.
#pragma once

#include "base/Mutex.h"

#include <cstddef>
#include <deque>
#include <functional>
#include <thread>
#include <vector>

namespace HVB::detail {

/// A few threads that run what arrives from the hub, with a bound on what may wait for them.
/// Calls run side by side. Events run one at a time in the order in which they came, so that "on" then "off" ends
/// in off; they and the calls do not wait for each other.
/// Threads: thread-safe. Owner: the broker.
class CallbackWorkers {
public:
    /// What a worker runs. The argument says whether callbacks may still begin; if not, the job only answers.
    using Job = std::function<void(bool deliver)>;
    enum class Lane { Call, Event };

    CallbackWorkers() = default;
    CallbackWorkers(const CallbackWorkers&) = delete;
    CallbackWorkers& operator=(const CallbackWorkers&) = delete;
    ~CallbackWorkers() { end(); }

    /// Makes the threads; a second call does nothing.
    void begin();

    /// Takes a job whose message takes @p bytes. @return false when too much waits already, or after end.
    bool post(Lane lane, std::size_t bytes, Job job);

    /// From now on every job is told not to deliver. This is for good, and waits only for this object's lock.
    void stop();

    /// Stops, lets the running and the waiting jobs finish, and joins the threads. Requires that no job is the caller.
    void end();

    /// Whether the calling thread is one of a worker, of any broker.
    static bool isWorker();

private:
    struct Waiting {
        std::size_t bytes;
        Job job;
    };

    void work();
    bool takeNext(Waiting& next, Lane& lane) SENTREL_REQUIRES(m_mutex);
    bool hasReadyEvent() const SENTREL_REQUIRES(m_mutex) { return !m_events.empty() && !m_eventRuns; }
    std::deque<Waiting>& queue(Lane lane) SENTREL_REQUIRES(m_mutex) { return lane == Lane::Call ? m_calls : m_events; }

    Sentrel::Mutex m_mutex;
    Sentrel::ConditionVariable m_changed;

    std::deque<Waiting> m_calls SENTREL_GUARDED_BY(m_mutex);
    std::deque<Waiting> m_events SENTREL_GUARDED_BY(m_mutex);
    std::size_t m_bytes SENTREL_GUARDED_BY(m_mutex) = 0;
    bool m_eventRuns SENTREL_GUARDED_BY(m_mutex) = false;
    bool m_stopped SENTREL_GUARDED_BY(m_mutex) = false;
    bool m_ended SENTREL_GUARDED_BY(m_mutex) = false;
    std::vector<std::thread> m_threads SENTREL_GUARDED_BY(m_mutex);
};

} // namespace HVB::detail
