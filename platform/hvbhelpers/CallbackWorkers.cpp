#include "platform/hvbhelpers/CallbackWorkers.h"

#include "base/StartThread.h"
#include "platform/hvbhelpers/HubLimits.h"

#include <utility>

namespace HVB::detail {
namespace {

thread_local bool t_isWorker = false;

} // namespace

bool CallbackWorkers::isWorker() {
    return t_isWorker;
}

void CallbackWorkers::begin() {
    const Sentrel::MutexLock lock(m_mutex);
    while (!m_ended && m_threads.size() < kCallbackThreads) {
        m_threads.push_back(Sentrel::startThread("hvb-callback", [this] { work(); }));
    }
}

bool CallbackWorkers::post(Lane lane, std::size_t bytes, Job job) {
    const Sentrel::MutexLock lock(m_mutex);
    const bool empty = m_calls.empty() && m_events.empty();
    const bool full = queue(lane).size() >= kMaxWaitingJobs || (!empty && m_bytes + bytes > kMaxWaitingBytes);
    if (m_ended || full) {
        return false;
    }
    queue(lane).push_back({bytes, std::move(job)});
    m_bytes += bytes;
    m_changed.notifyOne();
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
        m_changed.notifyAll();
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

bool CallbackWorkers::takeNext(Waiting& next, Lane& lane) {
    while (!hasReadyEvent() && m_calls.empty() && !m_ended) {
        m_changed.wait(m_mutex);
    }
    if (!hasReadyEvent() && m_calls.empty()) {
        return false;
    }
    lane = hasReadyEvent() ? Lane::Event : Lane::Call;
    next = std::move(queue(lane).front());
    queue(lane).pop_front();
    m_bytes -= next.bytes;
    m_eventRuns = m_eventRuns || lane == Lane::Event;
    return true;
}

void CallbackWorkers::work() {
    t_isWorker = true;
    Sentrel::MutexLock lock(m_mutex);
    Waiting next{};
    Lane lane = Lane::Call;
    while (takeNext(next, lane)) {
        const bool deliver = !m_stopped;
        lock.unlock();
        next.job(deliver);
        next.job = nullptr;
        lock.lock();
        if (lane == Lane::Event) {
            m_eventRuns = false;
            m_changed.notifyOne();
        }
    }
}

} // namespace HVB::detail
