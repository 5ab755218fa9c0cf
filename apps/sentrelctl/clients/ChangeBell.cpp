#include "apps/sentrelctl/clients/ChangeBell.h"

#include "apps/sentrelctl/terminal/Failure.h"
#include "hub/HVBCommBroker.h"
#include "hub/HVBMessages.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <utility>

namespace Sentrel::ctl {
namespace {

// Beyond that the reader of the output hangs. What an event tells is read back later than it came, so the last of
// those that are kept covers those that are not.
constexpr std::size_t kMaxKept = 10000;

} // namespace

ChangeBell::ChangeBell() : m_fd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (m_fd < 0) {
        throw Failure(ExitCode::Failed, "cannot wait for events", "", errnoText(errno), "");
    }
}

ChangeBell::~ChangeBell() {
    ::close(m_fd);
}

bool ChangeBell::handleEventNotification(HVB::EventData& event) {
    const std::lock_guard lock(m_mutex);
    if (m_events.size() >= kMaxKept) {
        return false;
    }
    m_events.push_back(event.m_eventId);
    const std::uint64_t one = 1;
    return ::write(m_fd, &one, sizeof one) == sizeof one;
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
    for (;;) {
        const auto rest = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd waiting{m_fd, POLLIN, 0};
        const int ready = ::poll(&waiting, 1, static_cast<int>(std::max<std::int64_t>(rest.count(), 0)));
        if (ready >= 0) {
            return ready > 0;
        }
        if (errno != EINTR) {
            throw Failure(ExitCode::Failed, "cannot wait for events", "", errnoText(errno), "");
        }
    }
}

std::vector<std::int32_t> ChangeBell::take() {
    const std::lock_guard lock(m_mutex);
    std::uint64_t rung = 0;
    if (::read(m_fd, &rung, sizeof rung) != sizeof rung) {
        return {}; // nobody rang
    }
    return std::exchange(m_events, {});
}

} // namespace Sentrel::ctl
