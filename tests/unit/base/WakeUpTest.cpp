// How a thread that polls is woken. Real: descriptors, threads, a limit on descriptors.
#include "base/WakeUp.h"
#include "tests/support/Eventually.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>

#include <cerrno>
#include <system_error>
#include <thread>

namespace Sentrel {
namespace {

bool isReadable(const WakeUp& wakeUp) {
    pollfd watched{wakeUp.fd(), POLLIN, 0};
    return ::poll(&watched, 1, 0) == 1;
}

std::chrono::steady_clock::time_point now() {
    return std::chrono::steady_clock::now();
}

TEST(WakeUp, IsReadableFromAWakeUntilItIsTaken) {
    const WakeUp wakeUp;
    EXPECT_FALSE(isReadable(wakeUp));
    wakeUp.wake();
    EXPECT_TRUE(isReadable(wakeUp));
    EXPECT_TRUE(isReadable(wakeUp)) << "looking does not take it";
    EXPECT_TRUE(wakeUp.take());
    EXPECT_FALSE(isReadable(wakeUp));
}

TEST(WakeUp, CountsSeveralWakesAsOne) {
    const WakeUp wakeUp;
    wakeUp.wake();
    wakeUp.wake();
    EXPECT_TRUE(wakeUp.take());
    EXPECT_FALSE(wakeUp.take());
}

TEST(WakeUp, TakesNothingWithoutWaitingWhenNobodyWoke) {
    const WakeUp wakeUp;
    errno = ENOSPC;
    EXPECT_FALSE(wakeUp.take());
    EXPECT_EQ(errno, ENOSPC);
}

TEST(WakeUp, EndsTheWaitOfAnotherThread) {
    const WakeUp wakeUp;
    std::thread waker([&] { wakeUp.wake(); });
    EXPECT_TRUE(wakeUp.waitUntil(testing_support::patience()));
    waker.join();
    EXPECT_TRUE(wakeUp.waitUntil(now())) << "the wake-up stays";
}

TEST(WakeUp, GivesUpAtTheDeadline) {
    const WakeUp wakeUp;
    const auto deadline = now() + std::chrono::milliseconds(5);
    EXPECT_FALSE(wakeUp.waitUntil(deadline));
    EXPECT_GE(now(), deadline);
    EXPECT_FALSE(wakeUp.waitUntil(now() - std::chrono::hours(1)));
}

TEST(WakeUp, TakesADeadlineThatNeverComes) {
    const WakeUp wakeUp;
    wakeUp.wake();
    EXPECT_TRUE(wakeUp.waitUntil(std::chrono::steady_clock::time_point::max()));
}

TEST(WakeUp, ThrowsWhenThereIsNoDescriptorToBeHad) {
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{0, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    try {
        const WakeUp wakeUp;
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code().value(), EMFILE);
    }
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
}

} // namespace
} // namespace Sentrel
