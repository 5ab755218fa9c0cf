// Waiting for a condition. The one place in the tests that looks again and again.
#pragma once

#include <chrono>
#include <thread>

namespace testing_support {

/// How long a test waits for what must happen. Generous, since a passing test never waits it out.
inline constexpr std::chrono::seconds kPatience{30};

inline std::chrono::steady_clock::time_point patience() {
    return std::chrono::steady_clock::now() + kPatience;
}

/// Looks at @p condition until it holds. @return whether it did before the deadline.
template <class Condition>
bool eventually(Condition&& condition, std::chrono::steady_clock::time_point deadline = patience()) {
    constexpr std::chrono::milliseconds betweenLooks{2};
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(betweenLooks);
    }
    return true;
}

} // namespace testing_support
