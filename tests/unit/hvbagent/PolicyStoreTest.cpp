// Which policy is in force. Real files; the policies are short.
#include "platform/hvbagent/PolicyStore.h"
#include "tests/support/Files.h"
#include "tests/support/PrivateRoot.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace {

using namespace HVBEnterprise::agent;

std::string policy(int version, const std::string& id = "x") {
    return R"({"version": )" + std::to_string(version) + R"(, "id": ")" + id + "\"}";
}

/// The rules over a store in a directory of its own.
class ThePolicyInForce : public ::testing::Test {
protected:
    PolicyInForce fresh(const std::optional<PublicKey>& key = {}) const { return {PolicyStore(m_path), key}; }
    PolicyVerdict verdictOn(const std::string& message) { return m_policy.take(message).verdict; }
    std::string saved() const { return testing_support::readFile(m_path); }

    testing_support::PrivateRoot m_root;
    const std::string m_path = m_root.varDirectory() + "/policy.json";
    PolicyInForce m_policy = fresh();
};

TEST_F(ThePolicyInForce, IsNoneAtFirst) {
    EXPECT_FALSE(m_policy.restore());
    EXPECT_FALSE(std::filesystem::exists(m_path));
}

TEST_F(ThePolicyInForce, IsANewerOneThatCame) {
    EXPECT_EQ(verdictOn(policy(0)), PolicyVerdict::Enforce);
    EXPECT_EQ(saved(), policy(0));
    EXPECT_EQ(verdictOn(policy(9)), PolicyVerdict::Enforce);
    EXPECT_EQ(saved(), policy(9));
    EXPECT_EQ(m_policy.identity().version, 9);
}

TEST_F(ThePolicyInForce, StaysWhenAnOlderOneComes) {
    ASSERT_EQ(verdictOn(policy(9)), PolicyVerdict::Enforce);
    const PolicyDecision decision = m_policy.take(policy(8));
    EXPECT_EQ(decision.verdict, PolicyVerdict::Refused);
    EXPECT_EQ(decision.refused, "it is older than the policy in force, which has version 9");
    EXPECT_EQ(decision.identity.version, 8);
    EXPECT_EQ(saved(), policy(9));
}

TEST_F(ThePolicyInForce, StaysWhenTheSameVersionComesWithOtherContent) {
    ASSERT_EQ(verdictOn(policy(9)), PolicyVerdict::Enforce);
    EXPECT_EQ(m_policy.take(policy(9, "y")).refused, "a policy with other content is in force as version 9");
    EXPECT_EQ(saved(), policy(9));
}

TEST_F(ThePolicyInForce, IsEnforcedAgainOnlyUntilThatWorked) {
    ASSERT_EQ(verdictOn(policy(9)), PolicyVerdict::Enforce);
    EXPECT_EQ(verdictOn(policy(9)), PolicyVerdict::Enforce); // nobody said what came of it
    m_policy.noteEnforced(false);
    EXPECT_EQ(verdictOn(policy(9)), PolicyVerdict::Enforce);
    m_policy.noteEnforced(true);
    EXPECT_EQ(verdictOn(policy(9)), PolicyVerdict::AlreadyThere);
    EXPECT_EQ(verdictOn(policy(10)), PolicyVerdict::Enforce);
    EXPECT_EQ(verdictOn(policy(10)), PolicyVerdict::Enforce); // the last one's success is not this one's
}

TEST_F(ThePolicyInForce, StaysWhenWhatComesIsNoPolicy) {
    ASSERT_EQ(verdictOn(policy(9)), PolicyVerdict::Enforce);
    EXPECT_EQ(verdictOn("{}"), PolicyVerdict::Refused);
    EXPECT_EQ(verdictOn("x"), PolicyVerdict::Refused);
    EXPECT_EQ(saved(), policy(9));
    EXPECT_EQ(m_policy.identity().version, 9);
}

TEST_F(ThePolicyInForce, StaysWhenTheNextCannotBeSaved) {
    ASSERT_EQ(verdictOn(policy(9)), PolicyVerdict::Enforce);
    std::filesystem::create_directories(m_path + ".new/in-the-way");
    EXPECT_EQ(m_policy.take(policy(10)).refused.substr(0, 20), "it cannot be saved: ");
    EXPECT_EQ(m_policy.identity().version, 9);
    EXPECT_EQ(saved(), policy(9));
}

TEST_F(ThePolicyInForce, IsTheSavedOneAfterARestart) {
    ASSERT_EQ(verdictOn(policy(9)), PolicyVerdict::Enforce);
    PolicyInForce next = fresh();
    ASSERT_TRUE(next.restore());
    EXPECT_EQ(next.identity().version, 9);
    EXPECT_EQ(next.take(policy(8)).verdict, PolicyVerdict::Refused);
    next.noteEnforced(true);
    EXPECT_EQ(next.take(policy(9)).verdict, PolicyVerdict::AlreadyThere);
}

TEST_F(ThePolicyInForce, IsNoneWhenTheSavedOneCannotBeReadAndTheFileStays) {
    std::ofstream(m_path) << "{ half";
    EXPECT_THROW(m_policy.restore(), std::runtime_error);
    EXPECT_EQ(saved(), "{ half");
    EXPECT_EQ(verdictOn(policy(1)), PolicyVerdict::Enforce);
    EXPECT_EQ(saved(), policy(1));
}

TEST_F(ThePolicyInForce, IsNotASavedOneWithoutASignatureWhenAKeyHasCome) {
    ASSERT_EQ(verdictOn(policy(9)), PolicyVerdict::Enforce);
    EXPECT_THROW(fresh(PublicKey{}).restore(), std::runtime_error);
    EXPECT_EQ(saved(), policy(9));
}

} // namespace
