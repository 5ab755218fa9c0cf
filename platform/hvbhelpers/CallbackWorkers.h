// The threads on which the broker calls into the module.
#pragma once

#include "base/Mutex.h"
#include "platform/hvbhelpers/FairQueue.h"

#include <array>
#include <cstddef>
#include <string>
#include <thread>
#include <vector>

namespace HVB::detail {

/// A few threads that run what arrives from the hub. Each lane has threads of its own, so that what fills one lane
/// holds up no other, and a fair queue with a bound for each user. Threads: thread-safe. Owner: the broker.
class CallbackWorkers {
public:
    using Job = FairQueue::Job;

    enum class Lane {
        Event,          ///< one at a time in the order of arrival, so that "on" then "off" ends in off
        Health,         ///< the hub's question whether the module is well
        Changes,        ///< commands that are run one after the other, in the order of arrival
        Administrators, ///< other calls that change something, root's reads, and the answers to the module's own
        Users,          ///< everybody's calls that only read
    };

    CallbackWorkers();
    CallbackWorkers(const CallbackWorkers&) = delete;
    CallbackWorkers& operator=(const CallbackWorkers&) = delete;
    ~CallbackWorkers() { end(); }

    /// Makes the threads; a second call does nothing.
    void begin();

    /// Takes a job whose message takes @p bytes. @return false when too much of this sender's user waits already, or
    /// after end.
    bool post(Lane lane, const Sender& sender, std::size_t bytes, Job job);

    /// From now on every job is told not to deliver. This is for good, and waits only for this object's lock.
    void stop();

    /// Stops, lets the running and the waiting jobs finish, and joins the threads. Requires that no job is the caller.
    void end();

    /// Whether the calling thread is one of a worker, of any broker.
    static bool isWorker();

private:
    static constexpr std::size_t kLanes = 5;

    struct LaneState {
        FairQueue queue;
        Sentrel::ConditionVariable changed; ///< there is a job, one has ended, or the threads end
    };

    void work(Lane lane);
    bool waitForJob(LaneState& lane) SENTREL_REQUIRES(m_mutex);
    LaneState& state(Lane lane) SENTREL_REQUIRES(m_mutex) { return m_lanes[static_cast<std::size_t>(lane)]; }

    Sentrel::Mutex m_mutex;

    std::array<LaneState, kLanes> m_lanes SENTREL_GUARDED_BY(m_mutex);
    bool m_stopped SENTREL_GUARDED_BY(m_mutex) = false;
    bool m_ended SENTREL_GUARDED_BY(m_mutex) = false;
    std::vector<std::thread> m_threads SENTREL_GUARDED_BY(m_mutex);
};

} // namespace HVB::detail
