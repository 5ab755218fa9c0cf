#include "base/WakeUp.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <limits>
#include <system_error>

namespace Sentrel {

WakeUp::WakeUp() : m_fd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!m_fd.isOpen()) {
        throw std::system_error(errno, std::system_category(), "cannot make a wake-up descriptor");
    }
}

void WakeUp::wake() const noexcept {
    const int saved = errno;
    (void)::eventfd_write(m_fd.get(), 1); // fails only when a wake-up is waiting already
    errno = saved;
}

bool WakeUp::take() const noexcept {
    const int saved = errno;
    eventfd_t value = 0;
    const bool taken = ::eventfd_read(m_fd.get(), &value) == 0;
    errno = saved;
    return taken;
}

bool WakeUp::waitUntil(std::chrono::steady_clock::time_point deadline) const {
    constexpr std::int64_t longest = std::numeric_limits<int>::max();
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd waiting{m_fd.get(), POLLIN, 0};
        const int ready = ::poll(&waiting, 1, static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, longest)));
        if (ready > 0 || (ready == 0 && left.count() <= longest)) {
            return ready > 0;
        }
        if (ready < 0 && errno != EINTR) {
            throw std::system_error(errno, std::system_category(), "cannot wait for a wake-up");
        }
    }
}

} // namespace Sentrel
