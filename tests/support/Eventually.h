// Waiting for a condition. The one place in the tests that looks again and again.
#pragma once

#include <chrono>
#include <future>
#include <latch>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

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

/// Looks at @p condition until it holds. @throws std::runtime_error naming @p what when it does not before the
/// deadline.
template <class Condition>
void awaitUntil(const std::string& what, Condition&& condition) {
    if (!eventually(std::forward<Condition>(condition))) {
        throw std::runtime_error("waited " + std::to_string(kPatience.count()) + " s in vain for " + what);
    }
}

/// What @p future gives; an exception in it passes on. @throws std::runtime_error naming @p what when nothing comes
/// before the deadline.
template <class Value>
Value await(std::future<Value>& future, const std::string& what) {
    awaitUntil(what, [&future] { return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready; });
    return future.get();
}

template <class Value>
Value await(std::future<Value>&& future, const std::string& what) {
    return await(future, what);
}

/// Returns when @p latch is down. @throws std::runtime_error naming @p what when it is not before the deadline.
inline void await(const std::latch& latch, const std::string& what) {
    awaitUntil(what, [&latch] { return latch.try_wait(); });
}

} // namespace testing_support
