// The policies that wait, and the topics that they come to.
#include "platform/hvbagent/WaitingPolicies.h"
#include "platform/hvbagent/AgentLimits.h"

#include <gtest/gtest.h>

namespace {

using namespace HVBEnterprise::agent;

const PolicyTopic kMachine{};
const PolicyTopic kGroup{"sales"};
const PolicyTopic kSite{"all"};

std::string textOf(const WaitingPolicies::Messages& messages, const PolicyTopic& topic) {
    return std::get<std::string>(messages.at(topic));
}

TEST(TheWaitingPolicies, AreTheLastOfEachTopic) {
    WaitingPolicies waiting;
    for (const char* message : {"1", "2", "3"}) {
        waiting.arrived(kMachine, message);
        waiting.arrived(kSite, ClearedPolicy{});
    }
    const auto messages = waiting.takeAll().messages;
    EXPECT_EQ(messages.size(), 2U);
    EXPECT_EQ(textOf(messages, kMachine), "3");
    EXPECT_TRUE(std::holds_alternative<ClearedPolicy>(messages.at(kSite)));
    EXPECT_TRUE(waiting.isEmpty());
}

TEST(TheWaitingPolicies, AreAskedForAgainWhenThereWasNoRoom) {
    WaitingPolicies waiting;
    waiting.arrived(kSite, std::string(kMaxWaitingPolicyBytes, 'a'));
    waiting.arrived(kGroup, "b");
    EXPECT_TRUE(waiting.takeWanted().empty()) << "there is no room yet";
    EXPECT_EQ(waiting.takeAll().messages.size(), 1U);
    EXPECT_EQ(waiting.takeWanted(), std::vector{kGroup});
    EXPECT_TRUE(waiting.takeWanted().empty());
    waiting.arrived(kGroup, "b");
    EXPECT_EQ(textOf(waiting.takeAll().messages, kGroup), "b");
}

TEST(TheWaitingPolicies, TakeOneThatIsAloneHoweverLargeItIs) {
    WaitingPolicies waiting;
    waiting.arrived(kSite, std::string(kMaxWaitingPolicyBytes + 1, 'a'));
    EXPECT_EQ(waiting.takeAll().messages.size(), 1U);
}

TEST(TheWaitingPolicies, DoNotGoBackToAnEarlierMessageOfTheTopic) {
    WaitingPolicies waiting;
    waiting.arrived(kSite, std::string(kMaxWaitingPolicyBytes, 'a'));
    waiting.arrived(kGroup, ClearedPolicy{});
    waiting.arrived(kGroup, "too much");
    EXPECT_EQ(waiting.takeAll().messages.count(kGroup), 0U);
    EXPECT_EQ(waiting.takeWanted(), std::vector{kGroup});
}

TEST(TheWaitingPolicies, TellOnceARoundOnWhichTopicsThereIsSomething) {
    WaitingPolicies waiting;
    EXPECT_FALSE(waiting.isDue());
    waiting.beginRound();
    EXPECT_TRUE(waiting.isDue()) << "that there is nothing is worth knowing";
    waiting.arrived(kSite, "a");
    waiting.arrived(kGroup, ClearedPolicy{});
    EXPECT_EQ(waiting.takeAll().all, std::set{kSite});
    waiting.arrived(kGroup, "b");
    EXPECT_FALSE(waiting.takeAll().all) << "the round is over";
}

TEST(TheTopicsOfPolicies, AreTheMachinesOwnAndThoseOfItsGroups) {
    const Topics topics("here", "m1");
    for (const PolicyTopic& topic : {kMachine, kGroup, kSite}) {
        EXPECT_EQ(topics.policyTopicOf(topics.policyOf(topic)), topic);
        EXPECT_EQ(PolicyTopic::ofText(topic.text()), topic);
    }
    EXPECT_EQ(kMachine.text(), "machine");
    EXPECT_EQ(kGroup.text(), "group/sales");
    for (const char* other : {"", "group", "group/", "group/a/b", "Machine"}) {
        EXPECT_FALSE(PolicyTopic::ofText(other)) << other;
    }
}

TEST(TheTopicsOfPolicies, AreNearerTheFewerMachinesTheyHave) {
    const PolicyTopic boss{"boss"};
    EXPECT_TRUE(kMachine.isNearerThan(kGroup));
    EXPECT_TRUE(kGroup.isNearerThan(kSite));
    EXPECT_TRUE(boss.isNearerThan(kGroup));
    EXPECT_FALSE(kGroup.isNearerThan(kGroup));
    EXPECT_FALSE(kSite.isNearerThan(PolicyTopic{"zebra"})) << "the site's is behind every group's";
}

TEST(TheClientIdOfAMachine, IsNoOtherMachines) {
    EXPECT_NE(clientIdOf("a-b", "c"), clientIdOf("a", "b-c"));
}

} // namespace
