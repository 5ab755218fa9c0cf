// What waits to be published.
#include "platform/hvbagent/Outbox.h"
#include "platform/hvbagent/AgentLimits.h"

#include <gtest/gtest.h>

#include <poll.h>

namespace {

using namespace HVBEnterprise::agent;

/// What is in the box, in its order, as "topic:payload ".
std::string contents(Outbox& outbox) {
    std::string text;
    while (const auto publication = outbox.take()) {
        text += publication->topic + ":" + publication->payload + " ";
    }
    return text;
}

bool isAwake(const Outbox& outbox) {
    pollfd watched{outbox.wakeFd(), POLLIN, 0};
    return ::poll(&watched, 1, 0) == 1;
}

TEST(AnOutbox, GivesEveryMessageInItsOrderWhileThereIsAConnection) {
    Outbox outbox;
    outbox.setConnected(true);
    outbox.post({"a", "1"});
    outbox.post({"b", "2"});
    outbox.post({"a", "3"});
    EXPECT_EQ(contents(outbox), "a:1 b:2 a:3 ");
}

TEST(AnOutbox, KeepsTheLastMessageOfATopicWhileThereIsNoConnection) {
    Outbox outbox;
    outbox.post({"a", "1"});
    outbox.post({"b", "2"});
    outbox.post({"a", "3"});
    EXPECT_EQ(contents(outbox), "b:2 a:3 ");
}

TEST(AnOutbox, KeepsNoMoreThanItsBoundOfOneTopic) {
    Outbox outbox;
    outbox.setConnected(true);
    for (std::size_t i = 0; i < 10 * kMaxWaitingPublications; ++i) {
        outbox.post({"a", std::to_string(i)});
    }
    std::size_t count = 0;
    std::string last;
    while (const auto publication = outbox.take()) {
        ++count;
        last = publication->payload;
    }
    EXPECT_EQ(count, kMaxWaitingPublications);
    EXPECT_EQ(last, std::to_string(10 * kMaxWaitingPublications - 1));
}

TEST(AnOutbox, TakesBackOnlyWhatIsStillTheLastOfItsTopic) {
    Outbox outbox;
    outbox.post({"a", "2"});
    outbox.putBack({"a", "1"});
    outbox.putBack({"b", "1"});
    EXPECT_EQ(contents(outbox), "b:1 a:2 ");
}

TEST(AnOutbox, WakesItsReaderOnceForAllThatCame) {
    Outbox outbox;
    EXPECT_FALSE(isAwake(outbox));
    outbox.post({"a", "1"});
    outbox.post({"a", "2"});
    EXPECT_TRUE(isAwake(outbox));
    outbox.takeWake();
    EXPECT_FALSE(isAwake(outbox));
    outbox.takeWake(); // takes none without waiting
}

} // namespace
