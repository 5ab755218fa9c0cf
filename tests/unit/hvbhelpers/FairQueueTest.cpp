// Who comes next. All real; no threads.
#include "platform/hvbhelpers/FairQueue.h"

#include "tests/support/ShortMemory.h"

#include <gtest/gtest.h>

#include <new>
#include <string>
#include <vector>

namespace {

using HVB::detail::FairQueue;
using HVB::detail::Sender;

/// A queue whose jobs write their names down.
class AFairQueue : public ::testing::Test {
protected:
    static constexpr FairQueue::Bounds kBounds{4, 100, 2};

    bool push(uid_t user, const std::string& connection, const std::string& name, std::size_t bytes = 0) {
        return m_queue.push({user, connection}, bytes, [this, name](bool) { m_ran.push_back(name); });
    }

    /// Takes the next job and runs it. @return whose it was.
    uid_t run() {
        const FairQueue::Taken next = m_queue.take();
        next.job(true);
        return next.user;
    }

    /// Runs all that waits, one at a time. @return the names in the order in which they ran.
    std::vector<std::string> runAll() {
        while (m_queue.hasReady()) {
            m_queue.finished(run());
        }
        return m_ran;
    }

    FairQueue m_queue{kBounds};
    std::vector<std::string> m_ran;
};

TEST_F(AFairQueue, KeepsTheOrderOfAConnection) {
    push(1, ":1.1", "first");
    push(1, ":1.1", "second");
    push(1, ":1.1", "third");
    EXPECT_EQ(runAll(), (std::vector<std::string>{"first", "second", "third"}));
}

TEST_F(AFairQueue, TakesTheConnectionsOfAUserInTurn) {
    push(1, ":1.1", "a1");
    push(1, ":1.1", "a2");
    push(1, ":1.2", "b1");
    push(1, ":1.2", "b2");
    EXPECT_EQ(runAll(), (std::vector<std::string>{"a1", "b1", "a2", "b2"}));
}

TEST_F(AFairQueue, TakesTheUsersInTurnHoweverManyConnectionsOneHas) {
    for (int connection = 1; connection <= 4; ++connection) {
        push(1, ":1." + std::to_string(connection), "crowd");
    }
    push(2, ":1.9", "alone");
    EXPECT_EQ(runAll(), (std::vector<std::string>{"crowd", "alone", "crowd", "crowd", "crowd"}));
}

TEST_F(AFairQueue, LetsAUserWhoComesLaterTakeTheNextTurn) {
    push(1, ":1.1", "a1");
    push(1, ":1.1", "a2");
    push(1, ":1.1", "a3");
    m_queue.finished(run());
    push(2, ":1.2", "b1");
    EXPECT_EQ(runAll(), (std::vector<std::string>{"a1", "a2", "b1", "a3"}));
}

TEST_F(AFairQueue, RefusesWhatIsBeyondAUsersJobsAndTakesTheOthers) {
    for (std::size_t i = 0; i < kBounds.jobsOfUser; ++i) {
        EXPECT_TRUE(push(1, ":1." + std::to_string(i), "one"));
    }
    EXPECT_FALSE(push(1, ":1.9", "one more"));
    EXPECT_TRUE(push(2, ":1.10", "another's"));
    m_queue.finished(run());
    EXPECT_TRUE(push(1, ":1.9", "after one has run"));
}

TEST_F(AFairQueue, RefusesWhatIsBeyondAUsersBytesButTakesOneLargeMessage) {
    EXPECT_TRUE(push(1, ":1.1", "large", kBounds.bytesOfUser + 1));
    EXPECT_FALSE(push(1, ":1.1", "one byte", 1));
    EXPECT_TRUE(push(2, ":1.2", "another's", kBounds.bytesOfUser));
    EXPECT_FALSE(push(2, ":1.2", "one byte", 1));
    m_queue.finished(run());
    EXPECT_TRUE(push(1, ":1.1", "after it has run", kBounds.bytesOfUser));
}

TEST_F(AFairQueue, RunsNoMoreOfAUserAtOnceThanMay) {
    for (int i = 0; i < 3; ++i) {
        push(1, ":1.1", "slow");
    }
    const uid_t first = run();
    run();
    EXPECT_FALSE(m_queue.hasReady());
    EXPECT_FALSE(m_queue.isEmpty());
    push(2, ":1.2", "another's");
    EXPECT_EQ(run(), 2U);
    m_queue.finished(first);
    EXPECT_TRUE(m_queue.hasReady());
}

TEST_F(AFairQueue, IsEmptyWhenAllJobsAreTakenAlthoughTheyStillRun) {
    push(1, ":1.1", "one");
    EXPECT_FALSE(m_queue.isEmpty());
    const uid_t user = run();
    EXPECT_TRUE(m_queue.isEmpty());
    EXPECT_FALSE(m_queue.hasReady());
    m_queue.finished(user);
    EXPECT_TRUE(push(1, ":1.1", "another"));
}

TEST_F(AFairQueue, IsAsItWasWhenThereIsNoMemoryForAJob) {
    std::size_t refused = 0;
    for (bool isShort = true; isShort; ++refused) {
        const testing_support::ShortMemory memory(refused);
        try {
            push(1, ":1.1", "waits");
            isShort = false;
        } catch (const std::bad_alloc&) {
            EXPECT_TRUE(m_queue.isEmpty());
            EXPECT_FALSE(m_queue.hasReady());
        }
    }
    EXPECT_GT(refused, 3U);
    EXPECT_EQ(runAll(), std::vector<std::string>{"waits"});
}

} // namespace
