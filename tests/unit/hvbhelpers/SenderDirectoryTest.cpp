// Whose connection is whose. All real; no bus.
#include "platform/hvbhelpers/SenderDirectory.h"
#include "platform/hvbhelpers/HubLimits.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace HVB::detail;
using Held = SenderDirectory::Held;

CommandMessage callNumbered(std::uint64_t token) {
    CommandMessage call;
    call.header.m_token = token;
    return call;
}

class ASenderDirectory : public ::testing::Test {
protected:
    Held hold(const std::string& connection, std::uint64_t token = 0) {
        CommandMessage call = callNumbered(token);
        return m_senders.hold(connection, call);
    }

    SenderDirectory m_senders;
};

TEST_F(ASenderDirectory, KnowsNobodyAtFirst) {
    EXPECT_EQ(m_senders.userOf(":1.1"), std::nullopt);
}

TEST_F(ASenderDirectory, AsksOnceForAConnectionAndGivesItsCallsInTheirOrder) {
    EXPECT_EQ(hold(":1.1", 10), Held::First);
    EXPECT_EQ(hold(":1.1", 11), Held::Later);
    EXPECT_EQ(hold(":1.2", 20), Held::First);
    const auto calls = m_senders.learn(":1.1", 1000);
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_EQ(calls[0].header.m_token, 10U);
    EXPECT_EQ(calls[1].header.m_token, 11U);
    EXPECT_EQ(m_senders.userOf(":1.1"), uid_t{1000});
    EXPECT_EQ(m_senders.userOf(":1.2"), std::nullopt);
}

TEST_F(ASenderDirectory, GivesTheCallsAndAsksAgainWhenTheBusToldNothing) {
    hold(":1.1");
    EXPECT_EQ(m_senders.learn(":1.1", std::nullopt).size(), 1U);
    EXPECT_EQ(m_senders.userOf(":1.1"), std::nullopt);
    EXPECT_EQ(hold(":1.1"), Held::First);
}

TEST_F(ASenderDirectory, HoldsFewCallsOfAConnectionAndLeavesTheNextOneWithItsCaller) {
    for (std::size_t i = 0; i < kMaxUnknownCallsOfConnection; ++i) {
        EXPECT_NE(hold(":1.1"), Held::No);
    }
    CommandMessage call = callNumbered(7);
    call.payload.text = L"still here";
    EXPECT_EQ(m_senders.hold(":1.1", call), Held::No);
    EXPECT_EQ(call.payload.text, L"still here");
    EXPECT_EQ(hold(":1.2"), Held::First);
}

TEST_F(ASenderDirectory, HoldsNoMoreThanItsBoundAndTakesCallsAgainWhenSomeHaveLeft) {
    for (std::size_t i = 0; i < kMaxUnknownCalls; ++i) {
        ASSERT_EQ(hold(":1." + std::to_string(i)), Held::First);
    }
    EXPECT_EQ(hold(":2.1"), Held::No);
    EXPECT_EQ(hold(":2.1"), Held::No);
    m_senders.learn(":1.0", 1000);
    EXPECT_EQ(hold(":2.1"), Held::First);
}

TEST_F(ASenderDirectory, HoldsNoMoreBytesThanItsBound) {
    const auto holdLarge = [this](const std::string& connection) {
        CommandMessage call;
        call.payload.text = std::wstring(kMaxUnknownBytes / sizeof(wchar_t) / 2, L'x');
        return m_senders.hold(connection, call);
    };
    EXPECT_EQ(holdLarge(":1.1"), Held::First);
    EXPECT_EQ(holdLarge(":1.2"), Held::First);
    EXPECT_EQ(holdLarge(":1.3"), Held::No);
    EXPECT_EQ(hold(":1.3"), Held::First) << "one without a payload";
    m_senders.learn(":1.1", 1000);
    EXPECT_EQ(holdLarge(":1.4"), Held::First);
}

TEST_F(ASenderDirectory, ForgetsTheConnectionThatItKnewFirst) {
    for (std::size_t i = 0; i <= kMaxKnownSenders; ++i) {
        m_senders.learn(":1." + std::to_string(i), static_cast<uid_t>(i));
    }
    EXPECT_EQ(m_senders.userOf(":1.0"), std::nullopt);
    EXPECT_EQ(m_senders.userOf(":1.1"), uid_t{1});
    EXPECT_EQ(m_senders.userOf(":1." + std::to_string(kMaxKnownSenders)), uid_t{kMaxKnownSenders});
}

TEST_F(ASenderDirectory, ForgetsEverythingWhenTheBusIsLost) {
    hold(":1.1");
    m_senders.learn(":1.2", 1000);
    m_senders.clear();
    EXPECT_EQ(m_senders.userOf(":1.2"), std::nullopt);
    EXPECT_TRUE(m_senders.learn(":1.1", 1000).empty());
}

} // namespace
