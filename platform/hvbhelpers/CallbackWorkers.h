// The threads on which the broker calls into the module.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
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

    /// From now on no job is told to deliver. For good; waits for nothing but this object's lock.
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
    bool takeNext(std::unique_lock<std::mutex>& lock, Waiting& next, Lane& lane);
    std::deque<Waiting>& queue(Lane lane) { return lane == Lane::Call ? m_calls : m_events; }

    std::mutex m_mutex;

    // guarded by m_mutex
    std::condition_variable m_changed;
    std::deque<Waiting> m_calls;
    std::deque<Waiting> m_events;
    std::size_t m_bytes = 0;
    bool m_eventRuns = false;
    bool m_stopped = false;
    bool m_ended = false;
    std::vector<std::thread> m_threads;
};

} // namespace HVB::detail
