// Locks and conditions. Real: threads. What the compiler finds is the clang presets' to show.
#include "base/Mutex.h"
#include "tests/support/Eventually.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace Sentrel {
namespace {

/// A number that several threads change.
class Counter {
public:
    void add() {
        const MutexLock lock(m_mutex);
        ++m_value;
        m_changed.notifyAll();
    }
    int value() {
        const MutexLock lock(m_mutex);
        return m_value;
    }
    /// Waits until it is @p wanted. @return whether it was, before the deadline.
    bool await(int wanted, std::chrono::steady_clock::time_point deadline) {
        const MutexLock lock(m_mutex);
        while (m_value != wanted) {
            if (!m_changed.waitUntil(m_mutex, deadline)) {
                return m_value == wanted;
            }
        }
        return true;
    }
    /// Adds one with the lock let go of and taken again. @return what it was then.
    int addWithoutTheLock() {
        MutexLock lock(m_mutex);
        lock.unlock();
        add();
        lock.lock();
        return m_value;
    }

private:
    Mutex m_mutex;
    ConditionVariable m_changed;
    int m_value SENTREL_GUARDED_BY(m_mutex) = 0;
};

TEST(AMutex, LetsOneThreadInAtATime) {
    constexpr int threads = 4;
    constexpr int rounds = 10'000;
    Counter counter;
    std::vector<std::thread> adders;
    adders.reserve(threads);
    for (int number = 0; number < threads; ++number) {
        adders.emplace_back([&] {
            for (int round = 0; round < rounds; ++round) {
                counter.add();
            }
        });
    }
    for (std::thread& adder : adders) {
        adder.join();
    }
    EXPECT_EQ(counter.value(), threads * rounds);
}

TEST(AMutex, CanBeLetGoOfInTheMiddle) {
    Counter counter;
    EXPECT_EQ(counter.addWithoutTheLock(), 1);
    counter.add();
    EXPECT_EQ(counter.value(), 2) << "it is free again at the lock's end";
}

TEST(AConditionVariable, WakesWhoWaitsForAChange) {
    Counter counter;
    std::thread adder([&] { counter.add(); });
    EXPECT_TRUE(counter.await(1, testing_support::patience()));
    adder.join();
}

TEST(AConditionVariable, GivesUpAtTheDeadline) {
    Counter counter;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(5);
    EXPECT_FALSE(counter.await(1, deadline));
    EXPECT_GE(std::chrono::steady_clock::now(), deadline);
    EXPECT_EQ(counter.value(), 0) << "the lock is free again";
}

} // namespace
} // namespace Sentrel
