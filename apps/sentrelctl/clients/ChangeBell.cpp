#include "apps/sentrelctl/clients/ChangeBell.h"

#include "apps/sentrelctl/terminal/Failure.h"
#include "hub/HVBCommBroker.h"
#include "hub/HVBMessages.h"

#include <system_error>
#include <utility>

namespace Sentrel::ctl {
namespace {

// Beyond that the reader of the output hangs. What an event tells is read back later than it came, so the last of
// those that are kept covers those that are not.
constexpr std::size_t kMaxKept = 10000;

Failure waitFailure(const std::system_error& error) {
    return {ExitCode::Failed, "cannot wait for events", "", error.code().message(), ""};
}

WakeUp newWakeUp() {
    try {
        return WakeUp();
    } catch (const std::system_error& error) {
        throw waitFailure(error);
    }
}

} // namespace

ChangeBell::ChangeBell() : m_rung(newWakeUp()) {}

bool ChangeBell::handleEventNotification(HVB::EventData& event) {
    const MutexLock lock(m_mutex);
    if (m_events.size() >= kMaxKept) {
        return false;
    }
    m_events.push_back(event.m_eventId);
    m_rung.wake();
    return true;
}

void ChangeBell::subscribe(const std::string& socketPath, std::initializer_list<std::int32_t> ids) {
    HVB::HVBCommBroker* const broker = HVB::HVBCommBroker::getInstance(socketPath);
    broker->setEventInterface(this);
    broker->start(true);
    for (const std::int32_t id : ids) {
        HVB::EventData event(id);
        broker->subscribeForEvent(event);
    }
}

bool ChangeBell::waitUntil(std::chrono::steady_clock::time_point deadline) const {
    try {
        return m_rung.waitUntil(deadline);
    } catch (const std::system_error& error) {
        throw waitFailure(error);
    }
}

std::vector<std::int32_t> ChangeBell::take() {
    const MutexLock lock(m_mutex);
    m_rung.take();
    return std::exchange(m_events, {});
}

} // namespace Sentrel::ctl
