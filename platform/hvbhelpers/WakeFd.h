// A descriptor by which any thread ends the sleep of one that polls.
#pragma once

#include "hub/Exceptions.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>

namespace HVB::detail {

/// A wake-up that stays until it is taken.
/// Threads: any. Owner: the object whose thread it wakes.
class WakeFd {
public:
    WakeFd() : m_fd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        if (m_fd < 0) {
            throw HVBException(-errno, "cannot make a wake-up descriptor");
        }
    }
    WakeFd(const WakeFd&) = delete;
    WakeFd& operator=(const WakeFd&) = delete;
    ~WakeFd() { ::close(m_fd); }

    int fd() const { return m_fd; }

    /// Keeps errno, and fails only when a wake-up is waiting already.
    void wake() const noexcept {
        const int saved = errno;
        const eventfd_t one = 1;
        (void)::eventfd_write(m_fd, one);
        errno = saved;
    }

    void take() const noexcept {
        eventfd_t value = 0;
        (void)::eventfd_read(m_fd, &value);
    }

private:
    int m_fd;
};

} // namespace HVB::detail
