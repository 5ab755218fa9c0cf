#include "apps/sentrelctl/ChangeBell.h"

#include "apps/sentrelctl/Failure.h"
#include "hub/HVBMessages.h"

#include <cerrno>
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

std::vector<std::int32_t> ChangeBell::take() {
    const std::lock_guard lock(m_mutex);
    std::uint64_t rung = 0;
    if (::read(m_fd, &rung, sizeof rung) != sizeof rung) {
        return {}; // nobody rang
    }
    return std::exchange(m_events, {});
}

} // namespace Sentrel::ctl
