#include "platform/hvbhelpers/CallbackWorkers.h"

#include "base/StartThread.h"
#include "platform/hvbhelpers/HubLimits.h"

#include <utility>

namespace HVB::detail {
namespace {

thread_local bool t_isWorker = false;

} // namespace

CallbackWorkers::CallbackWorkers()
    : m_lanes{{{FairQueue(kEventLane.bounds), {}},
               {FairQueue(kHealthLane.bounds), {}},
               {FairQueue(kChangesLane.bounds), {}},
               {FairQueue(kAdministratorsLane.bounds), {}},
               {FairQueue(kUsersLane.bounds), {}}}} {}

bool CallbackWorkers::isWorker() {
    return t_isWorker;
}

void CallbackWorkers::begin() {
    constexpr std::array<std::size_t, kLanes> threads{kEventLane.threads, kHealthLane.threads, kChangesLane.threads,
                                                      kAdministratorsLane.threads, kUsersLane.threads};
    const Sentrel::MutexLock lock(m_mutex);
    if (m_ended || !m_threads.empty()) {
        return;
    }
    for (std::size_t at = 0; at < kLanes; ++at) {
        for (std::size_t i = 0; i < threads.at(at); ++i) {
            m_threads.push_back(Sentrel::startThread("hvb-callback", [this, at] { work(static_cast<Lane>(at)); }));
        }
    }
}

bool CallbackWorkers::post(Lane lane, const Sender& sender, std::size_t bytes, Job job) {
    const Sentrel::MutexLock lock(m_mutex);
    if (m_ended || !state(lane).queue.push(sender, bytes, std::move(job))) {
        return false;
    }
    state(lane).changed.notifyOne();
    return true;
}

void CallbackWorkers::stop() {
    const Sentrel::MutexLock lock(m_mutex);
    m_stopped = true;
}

void CallbackWorkers::end() {
    std::vector<std::thread> threads;
    {
        const Sentrel::MutexLock lock(m_mutex);
        m_stopped = true;
        m_ended = true;
        threads.swap(m_threads);
        for (LaneState& lane : m_lanes) {
            lane.changed.notifyAll();
        }
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

/// @return false when the lane has ended and has nothing left to do.
bool CallbackWorkers::waitForJob(LaneState& lane) {
    while (!lane.queue.hasReady()) {
        if (m_ended && lane.queue.isEmpty()) {
            return false;
        }
        lane.changed.wait(m_mutex);
    }
    return true;
}

void CallbackWorkers::work(Lane which) {
    t_isWorker = true;
    Sentrel::MutexLock lock(m_mutex);
    LaneState& lane = state(which);
    while (waitForJob(lane)) {
        FairQueue::Taken next = lane.queue.take();
        const bool deliver = !m_stopped;
        lock.unlock();
        next.job(deliver);
        next.job = nullptr;
        lock.lock();
        lane.queue.finished(next.user);
        // The user's next job may run now, or the lane may have ended.
        lane.changed.notifyAll();
    }
}

} // namespace HVB::detail
