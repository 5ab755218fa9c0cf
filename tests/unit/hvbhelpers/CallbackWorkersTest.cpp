// The callback threads alone. All real; no bus.
#include "platform/hvbhelpers/CallbackWorkers.h"
#include "platform/hvbhelpers/HubLimits.h"
#include "tests/support/Eventually.h"

#include <gtest/gtest.h>

#include <pthread.h>

#include <csignal>
#include <future>
#include <latch>
#include <vector>

namespace {

using HVB::detail::CallbackWorkers;
using HVB::detail::kAdministratorsLane;
using HVB::detail::kUsersLane;
using HVB::detail::Sender;
using Lane = CallbackWorkers::Lane;

const Sender kRoot{0, ":1.1"};
const Sender kAnna{1000, ":1.2"};
const Sender kBen{1001, ":1.3"};

/// Callback threads. A test ends them itself when their jobs use what is its own.
class Workers : public ::testing::Test {
protected:
    CallbackWorkers m_workers;
};

TEST_F(Workers, RunCallsSideBySide) {
    m_workers.begin();
    std::latch together(static_cast<std::ptrdiff_t>(kAdministratorsLane.threads));
    for (std::size_t i = 0; i < kAdministratorsLane.threads; ++i) {
        ASSERT_TRUE(m_workers.post(Lane::Administrators, kRoot, 0, [&](bool) {
            together.count_down();
            testing_support::await(together, "the other calls");
        }));
    }
    m_workers.end(); // each of them waits for all the others
}

TEST_F(Workers, RunEventsOneAtATimeInTheOrderOfTheirArrival) {
    constexpr int count = 200;
    std::vector<int> seen; // unguarded on purpose: the thread sanitizer would see two at a time
    m_workers.begin();
    for (int i = 0; i < count; ++i) {
        ASSERT_TRUE(m_workers.post(Lane::Event, {}, 0, [&, i](bool) { seen.push_back(i); }));
    }
    m_workers.end();
    ASSERT_EQ(seen.size(), static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        EXPECT_EQ(seen[static_cast<std::size_t>(i)], i);
    }
}

TEST_F(Workers, RunCallsWhileAnEventIsHeldUp) {
    m_workers.begin();
    std::latch callDone(1);
    ASSERT_TRUE(m_workers.post(Lane::Event, {}, 0, [&](bool) { testing_support::await(callDone, "the call's job"); }));
    ASSERT_TRUE(m_workers.post(Lane::Event, {}, 0, [](bool) {}));
    ASSERT_TRUE(m_workers.post(Lane::Administrators, kRoot, 0, [&](bool) { callDone.count_down(); }));
    m_workers.end();
    EXPECT_TRUE(callDone.try_wait());
}

TEST_F(Workers, RunTheCallsOfOneUserBesideTheSlowCallOfAnother) {
    m_workers.begin();
    std::latch bensDone(1);
    ASSERT_TRUE(m_workers.post(Lane::Users, kAnna, 0, [&](bool) { testing_support::await(bensDone, "Ben's call"); }));
    ASSERT_TRUE(m_workers.post(Lane::Users, kAnna, 0, [](bool) {}));
    ASSERT_TRUE(m_workers.post(Lane::Users, kBen, 0, [&](bool) { bensDone.count_down(); }));
    m_workers.end();
    EXPECT_TRUE(bensDone.try_wait());
}

TEST_F(Workers, AnswerTheHealthCheckAndRootWhileUsersHoldAllOfTheirThreads) {
    m_workers.begin();
    std::latch bothDone(2);
    for (const Sender& user : {kAnna, kBen}) {
        ASSERT_TRUE(
            m_workers.post(Lane::Users, user, 0, [&](bool) { testing_support::await(bothDone, "root's call"); }));
    }
    ASSERT_TRUE(m_workers.post(Lane::Health, {}, 0, [&](bool) { bothDone.count_down(); }));
    ASSERT_TRUE(m_workers.post(Lane::Administrators, kRoot, 0, [&](bool) { bothDone.count_down(); }));
    m_workers.end();
    EXPECT_TRUE(bothDone.try_wait());
}

TEST_F(Workers, RefuseMoreThanAUsersShareAndTakeTheOthers) {
    for (std::size_t i = 0; i < kUsersLane.bounds.jobsOfUser; ++i) {
        ASSERT_TRUE(m_workers.post(Lane::Users, kAnna, 0, [](bool) {}));
    }
    EXPECT_FALSE(m_workers.post(Lane::Users, kAnna, 0, [](bool) {}));
    EXPECT_TRUE(m_workers.post(Lane::Users, kBen, 0, [](bool) {}));
    EXPECT_TRUE(m_workers.post(Lane::Administrators, kRoot, 0, [](bool) {}));
    EXPECT_TRUE(m_workers.post(Lane::Health, {}, 0, [](bool) {}));
    EXPECT_TRUE(m_workers.post(Lane::Event, {}, 0, [](bool) {}));
}

TEST_F(Workers, TellJobsNotToDeliverOnceTheyAreStopped) {
    std::promise<bool> delivered;
    m_workers.stop();
    m_workers.begin();
    ASSERT_TRUE(m_workers.post(Lane::Administrators, kRoot, 0, [&](bool deliver) { delivered.set_value(deliver); }));
    EXPECT_FALSE(testing_support::await(delivered.get_future(), "the job"));
    m_workers.end();
}

TEST_F(Workers, FinishWhatWaitsBeforeTheyEnd) {
    int ran = 0;
    m_workers.begin();
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(m_workers.post(Lane::Event, {}, 0, [&](bool) { ++ran; }));
    }
    m_workers.end();
    EXPECT_EQ(ran, 10);
    EXPECT_FALSE(m_workers.post(Lane::Administrators, kRoot, 0, [](bool) {}));
}

TEST_F(Workers, CanBeStoppedFromAJob) {
    bool delivered = true;
    m_workers.begin();
    ASSERT_TRUE(m_workers.post(Lane::Event, {}, 0, [&](bool) { m_workers.stop(); }));
    ASSERT_TRUE(m_workers.post(Lane::Event, {}, 0, [&](bool deliver) { delivered = deliver; }));
    m_workers.end();
    EXPECT_FALSE(delivered);
}

TEST_F(Workers, RunWithEverySignalBlocked) {
    std::promise<sigset_t> mask;
    m_workers.begin();
    ASSERT_TRUE(m_workers.post(Lane::Administrators, kRoot, 0, [&](bool) {
        sigset_t blocked;
        pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        mask.set_value(blocked);
    }));
    const sigset_t blocked = testing_support::await(mask.get_future(), "the worker's mask");
    m_workers.end();
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGUSR2, SIGPIPE}) {
        EXPECT_EQ(sigismember(&blocked, signal), 1) << signal;
    }
}

} // namespace
