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
    const std::lock_guard lock(m_mutex);
    while (!m_ended && m_threads.size() < kCallbackThreads) {
        m_threads.push_back(Sentrel::startThread("hvb-callback", [this] { work(); }));
    }
}

bool CallbackWorkers::post(Lane lane, std::size_t bytes, Job job) {
    const std::lock_guard lock(m_mutex);
    const bool empty = m_calls.empty() && m_events.empty();
    const bool full = queue(lane).size() >= kMaxWaitingJobs || (!empty && m_bytes + bytes > kMaxWaitingBytes);
    if (m_ended || full) {
        return false;
    }
    queue(lane).push_back({bytes, std::move(job)});
    m_bytes += bytes;
    m_changed.notify_one();
    return true;
}

void CallbackWorkers::stop() {
    const std::lock_guard lock(m_mutex);
    m_stopped = true;
}

void CallbackWorkers::end() {
    std::vector<std::thread> threads;
    {
        const std::lock_guard lock(m_mutex);
        m_stopped = true;
        m_ended = true;
        threads.swap(m_threads);
        m_changed.notify_all();
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

bool CallbackWorkers::takeNext(std::unique_lock<std::mutex>& lock, Waiting& next, Lane& lane) {
    const auto eventReady = [this] { return !m_events.empty() && !m_eventRuns; };
    m_changed.wait(lock, [&] { return eventReady() || !m_calls.empty() || m_ended; });
    if (!eventReady() && m_calls.empty()) {
        return false;
    }
    lane = eventReady() ? Lane::Event : Lane::Call;
    next = std::move(queue(lane).front());
    queue(lane).pop_front();
    m_bytes -= next.bytes;
    m_eventRuns = m_eventRuns || lane == Lane::Event;
    return true;
}

void CallbackWorkers::work() {
    t_isWorker = true;
    std::unique_lock lock(m_mutex);
    Waiting next{};
    Lane lane = Lane::Call;
    while (takeNext(lock, next, lane)) {
        const bool deliver = !m_stopped;
        lock.unlock();
        next.job(deliver);
        next.job = nullptr;
        lock.lock();
        if (lane == Lane::Event) {
            m_eventRuns = false;
            m_changed.notify_one();
        }
    }
}

} // namespace HVB::detail
