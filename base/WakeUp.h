// How any thread ends the sleep of one that polls.
#pragma once

#include "base/UniqueFd.h"

#include <chrono>

namespace Sentrel {

/// A wake-up that stays until it is taken. Several before it is taken count as one.
/// Threads: thread-safe. Owner: the object whose thread it wakes; it must outlive everyone who wakes.
class WakeUp {
public:
    /// @throws std::system_error when the system has no descriptor to give.
    WakeUp();
    WakeUp(const WakeUp&) = delete;
    WakeUp& operator=(const WakeUp&) = delete;

    /// For poll: readable from a wake-up until it is taken.
    int fd() const noexcept { return m_fd.get(); }

    /// Keeps errno, takes no lock and allocates nothing: a signal handler may call it.
    void wake() const noexcept;

    /// Never waits, keeps errno. @return whether there was a wake-up to take.
    bool take() const noexcept;

    /// Waits for a wake-up, which stays. @return false when @p deadline came first.
    /// @throws std::system_error when the system cannot wait.
    bool waitUntil(std::chrono::steady_clock::time_point deadline) const;

private:
    UniqueFd m_fd; // constant after construction
};

} // namespace Sentrel
