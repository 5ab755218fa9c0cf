// Pauses between attempts that fail.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <optional>
#include <random>

namespace HVBEnterprise::agent {

/// When the next attempt is. The pauses double from the first to the last, and each is drawn between its half and its
/// whole, so that a fleet does not do the same thing at once.
/// Threads: plain, single access. Owner: whoever attempts.
class Backoff {
public:
    using Clock = std::chrono::steady_clock;

    Backoff(std::chrono::milliseconds first, std::chrono::milliseconds last)
        : m_first(first), m_last(last), m_pause(first), m_random(std::random_device{}()) {}

    /// Nothing while no attempt is due.
    const std::optional<Clock::time_point>& at() const { return m_at; }
    bool isDue(Clock::time_point now) const { return m_at && now >= *m_at; }

    /// An attempt failed: the next one comes after a longer pause.
    void later(Clock::time_point now) {
        std::uniform_int_distribution<std::int64_t> drawn(m_pause.count() / 2, m_pause.count());
        m_at = now + std::chrono::milliseconds(drawn(m_random));
        m_pause = std::min(m_pause * 2, m_last);
    }
    /// An attempt begins.
    void begin() { m_at.reset(); }
    /// It went well, or there is nothing to be attempted any more.
    void reset() {
        m_at.reset();
        m_pause = m_first;
    }

private:
    const std::chrono::milliseconds m_first;
    const std::chrono::milliseconds m_last;
    std::chrono::milliseconds m_pause;
    std::minstd_rand m_random;
    std::optional<Clock::time_point> m_at;
};

} // namespace HVBEnterprise::agent
