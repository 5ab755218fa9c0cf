// Which policy is in force. Real files; the policies are short.
//
// Of many policies on many topics one is chosen, by a rule that does not ask which came first: so most of these give
// the same policies in several orders, and one of them in every order. What is saved must say the same after a restart,
// in whatever state the files are then.
#include "platform/hvbagent/PolicyInForce.h"
#include "platform/hvbagent/Encoding.h"
#include "tests/support/Files.h"
#include "tests/support/PrivateRoot.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace {

using namespace HVBEnterprise::agent;
using nlohmann::json;

const PolicyTopic kOwn{};
const PolicyTopic kSales{"sales"};
const PolicyTopic kPilots{"pilots"};
const PolicyTopic kAll{"all"};

std::string policy(std::int64_t version, const json& more = json::object()) {
    json document{{"version", version}, {"id", "x"}};
    document.merge_patch(more);
    return document.dump();
}

/// A policy for whoever is in a group of the site.
std::string groupPolicy(std::int64_t version, const std::string& group, const json& more = json::object()) {
    json all{{"audience", {{"site", "here"}, {"group", group}}}};
    all.merge_patch(more);
    return policy(version, all);
}

/// The rules over files in a directory of their own, for machine "m1" of site "here".
class ThePolicyInForce : public ::testing::Test {
protected:
    PolicyInForce fresh(PolicyTaker taker) const { return {PolicyFiles{m_path, m_recordPath}, std::move(taker)}; }
    PolicyInForce fresh() const { return fresh(m_taker); }

    JudgedPolicy take(const std::string& message, const PolicyTopic& topic = kOwn) {
        return m_policy.choose({{topic, message}}).judged.at(0);
    }
    PolicyFate fateOf(const std::string& message, const PolicyTopic& topic = kOwn) { return take(message, topic).fate; }
    std::string saved() const { return testing_support::readFile(m_path); }
    json record() const { return json::parse(testing_support::readFile(m_recordPath)); }

    testing_support::PrivateRoot m_root;
    const std::string m_path = m_root.varDirectory() + "/policy.json";
    const std::string m_recordPath = m_root.varDirectory() + "/policy-record.json";
    PolicyTaker m_taker{
        .site = "here", .machine = "m1", .groups = {"pilots", "sales"}, .keys = {}, .requiresAudience = false};
    PolicyInForce m_policy = fresh();
};

TEST_F(ThePolicyInForce, IsNoneAtFirst) {
    EXPECT_EQ(m_policy.restore(), "");
    EXPECT_FALSE(m_policy.isThere());
    EXPECT_FALSE(std::filesystem::exists(m_path));
    EXPECT_FALSE(std::filesystem::exists(m_recordPath));
}

TEST_F(ThePolicyInForce, IsANewerOneThatCame) {
    EXPECT_EQ(fateOf(policy(0)), PolicyFate::InForce);
    EXPECT_EQ(saved(), policy(0));
    const PolicyChoice choice = m_policy.choose({{kOwn, policy(9)}});
    EXPECT_TRUE(choice.isNew);
    EXPECT_EQ(choice.judged.at(0).fate, PolicyFate::InForce);
    EXPECT_EQ(saved(), policy(9));
    EXPECT_EQ(m_policy.identity().version, 9);
}

TEST_F(ThePolicyInForce, IsNotAnotherOneWhenItComesAgain) {
    ASSERT_EQ(fateOf(policy(9)), PolicyFate::InForce);
    const std::string since = m_policy.since();
    const PolicyChoice choice = m_policy.choose({{kOwn, policy(9)}});
    EXPECT_FALSE(choice.isNew);
    EXPECT_EQ(choice.judged.at(0).fate, PolicyFate::InForce);
    EXPECT_EQ(m_policy.since(), since);
}

TEST_F(ThePolicyInForce, StaysWhenAnOlderOneComesToItsTopic) {
    ASSERT_EQ(fateOf(policy(9)), PolicyFate::InForce);
    const JudgedPolicy older = take(policy(8));
    EXPECT_EQ(older.fate, PolicyFate::Refused);
    EXPECT_EQ(older.why, "it is older than the policy in force, which has version 9");
    EXPECT_EQ(older.identity.version, 8);
    EXPECT_EQ(saved(), policy(9));
}

TEST_F(ThePolicyInForce, StaysWhenTheSameVersionComesToItsTopicWithOtherContent) {
    ASSERT_EQ(fateOf(policy(9)), PolicyFate::InForce);
    EXPECT_EQ(take(policy(9, {{"id", "y"}})).why, "a policy with other content is in force as version 9");
    EXPECT_EQ(saved(), policy(9));
}

TEST_F(ThePolicyInForce, IsPassedOverOnATopicWhoseVersionIsOlder) {
    ASSERT_EQ(fateOf(groupPolicy(9, "all"), kAll), PolicyFate::InForce);
    const JudgedPolicy own = take(policy(5));
    EXPECT_EQ(own.fate, PolicyFate::PassedOver);
    EXPECT_EQ(own.why, "it is older than version 9 of group/all");
}

TEST_F(ThePolicyInForce, IsOfAllThatCameTheOneWithTheHighestVersion) {
    std::vector<ArrivedPolicy> arrived{{kAll, groupPolicy(100, "all")}};
    for (int i = 0; i < 32; ++i) {
        arrived.push_back({kSales, groupPolicy(50 + i, "sales")});
    }
    const PolicyChoice choice = m_policy.choose(arrived);
    EXPECT_EQ(m_policy.identity().version, 100);
    EXPECT_EQ(choice.judged.at(0).fate, PolicyFate::InForce);
    EXPECT_EQ(choice.judged.at(32).fate, PolicyFate::PassedOver);
    EXPECT_FALSE(choice.judged.at(32).why.empty());
}

TEST_F(ThePolicyInForce, IsTheSameInWhateverOrderTheTopicsCome) {
    std::vector<ArrivedPolicy> arrived{{kOwn, policy(7, {{"id", "own"}})},
                                       {kAll, groupPolicy(7, "all")},
                                       {kPilots, groupPolicy(7, "pilots")},
                                       {kSales, groupPolicy(6, "sales")}};
    std::vector<std::size_t> order{0, 1, 2, 3};
    do {
        for (const bool isTogether : {true, false}) {
            std::filesystem::remove(m_path);
            std::filesystem::remove(m_recordPath);
            m_policy.~PolicyInForce();
            new (&m_policy) PolicyInForce(fresh());
            std::vector<ArrivedPolicy> next;
            for (const std::size_t at : order) {
                next.push_back(arrived[at]);
                if (!isTogether) {
                    m_policy.choose(std::exchange(next, {}));
                }
            }
            m_policy.choose(next);
            EXPECT_EQ(m_policy.identity().id, "own");
        }
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(ThePolicyInForce, IsTheNearerOneOfTheSameVersion) {
    ASSERT_EQ(fateOf(groupPolicy(7, "all"), kAll), PolicyFate::InForce);
    EXPECT_EQ(fateOf(groupPolicy(7, "sales"), kSales), PolicyFate::InForce);
    EXPECT_EQ(fateOf(groupPolicy(7, "pilots"), kPilots), PolicyFate::InForce) << "the name that comes first";
    EXPECT_EQ(take(groupPolicy(7, "sales"), kSales).why, "it is not as near as version 7 of group/pilots");
    EXPECT_EQ(fateOf(policy(7)), PolicyFate::InForce);
}

TEST_F(ThePolicyInForce, IsTheOneOfTheHigherEpoch) {
    ASSERT_EQ(fateOf(policy(std::numeric_limits<std::int64_t>::max())), PolicyFate::InForce);
    EXPECT_EQ(fateOf(policy(1, {{"epoch", 2}})), PolicyFate::InForce);
    EXPECT_EQ(take(policy(900)).why, "it is older than the policy in force, which has version 1 of epoch 2");
    EXPECT_EQ(take(policy(900), kSales).why, "it does not say whom it is for, and came to a topic of many machines");
}

TEST_F(ThePolicyInForce, IsNeverOneForSomebodyElse) {
    const std::map<std::string, json> others{
        {"it is for site there", {{"site", "there"}, {"machine", "m1"}}},
        {"it is for machine m2", {{"site", "here"}, {"machine", "m2"}}},
        {"it is for group boss, which this machine is not in", {{"site", "here"}, {"group", "boss"}}}};
    for (const auto& [why, audience] : others) {
        const JudgedPolicy judged = take(policy(1, {{"audience", audience}}));
        EXPECT_EQ(judged.fate, PolicyFate::Refused);
        EXPECT_EQ(judged.why, why);
    }
    EXPECT_EQ(fateOf(policy(1, {{"audience", {{"site", "here"}, {"machine", "m1"}}}})), PolicyFate::InForce);
    EXPECT_EQ(fateOf(groupPolicy(2, "all"), kAll), PolicyFate::InForce);
    EXPECT_EQ(fateOf(groupPolicy(3, "sales"), kSales), PolicyFate::InForce);
}

TEST_F(ThePolicyInForce, CountsOnTheTopicAloneThatItIsFor) {
    EXPECT_EQ(take(groupPolicy(7, "all")).why, "it is for group/all, and came to machine");
    EXPECT_EQ(take(groupPolicy(7, "sales"), kPilots).why, "it is for group/sales, and came to group/pilots");
    EXPECT_EQ(take(policy(7, {{"audience", {{"site", "here"}, {"machine", "m1"}}}}), kAll).why,
              "it is for machine, and came to group/all");
}

TEST_F(ThePolicyInForce, MayLackAnAudienceOnTheMachinesOwnTopicUntilOneIsRequired) {
    EXPECT_EQ(take(policy(1), kAll).why, "it does not say whom it is for, and came to a topic of many machines");
    EXPECT_EQ(fateOf(policy(1)), PolicyFate::InForce);
    m_taker.requiresAudience = true;
    PolicyInForce strict = fresh();
    EXPECT_EQ(strict.restore(),
              m_path + ": it does not say whom it is for, and this machine takes only policies that do");
    EXPECT_EQ(strict.choose({{kOwn, policy(2)}}).judged.at(0).why,
              "it does not say whom it is for, and this machine takes only policies that do");
    EXPECT_EQ(strict.choose({{kAll, groupPolicy(2, "all")}}).judged.at(0).fate, PolicyFate::InForce);
}

TEST_F(ThePolicyInForce, StaysWhenWhatComesIsNoPolicy) {
    ASSERT_EQ(fateOf(policy(9)), PolicyFate::InForce);
    EXPECT_EQ(fateOf("{}"), PolicyFate::Refused);
    EXPECT_EQ(fateOf("x"), PolicyFate::Refused);
    EXPECT_EQ(saved(), policy(9));
    EXPECT_EQ(m_policy.identity().version, 9);
}

TEST_F(ThePolicyInForce, StaysWhenTheNextCannotBeSavedWhichMayBeTakenLater) {
    ASSERT_EQ(fateOf(policy(9)), PolicyFate::InForce);
    std::filesystem::create_directories(m_path + ".new/in-the-way");
    const JudgedPolicy next = take(policy(10));
    EXPECT_EQ(next.why.substr(0, 20), "it cannot be saved: ");
    EXPECT_FALSE(next.isSaved);
    EXPECT_EQ(m_policy.identity().version, 9);
    EXPECT_EQ(saved(), policy(9));
    std::filesystem::remove_all(m_path + ".new");
    EXPECT_EQ(fateOf(policy(10)), PolicyFate::InForce);
}

TEST_F(ThePolicyInForce, IsRecordedWithWhatIsKnownOfIt) {
    ASSERT_EQ(fateOf(groupPolicy(9, "sales", {{"epoch", 3}}), kSales), PolicyFate::InForce);
    EXPECT_EQ(record(), json({{"site", "here"},
                              {"machine", "m1"},
                              {"epoch", 3},
                              {"version", 9},
                              {"sha256", sha256Of(groupPolicy(9, "sales", {{"epoch", 3}}))},
                              {"topic", "group/sales"},
                              {"since", m_policy.since()}}));
}

TEST_F(ThePolicyInForce, IsTheSavedOneAfterARestart) {
    ASSERT_EQ(fateOf(groupPolicy(9, "sales"), kSales), PolicyFate::InForce);
    PolicyInForce next = fresh();
    EXPECT_EQ(next.restore(), "");
    ASSERT_TRUE(next.isThere());
    EXPECT_EQ(next.identity().version, 9);
    EXPECT_EQ(next.topic(), kSales);
    EXPECT_EQ(next.since(), m_policy.since());
    EXPECT_EQ(next.choose({{kSales, groupPolicy(8, "sales")}}).judged.at(0).fate, PolicyFate::Refused);
    EXPECT_FALSE(next.choose({{kSales, groupPolicy(9, "sales")}}).isNew);
}

TEST_F(ThePolicyInForce, IsTheSavedOneOfAMachineThatKeptNoRecord) {
    std::ofstream(m_path) << policy(9);
    EXPECT_EQ(m_policy.restore(), "");
    ASSERT_TRUE(m_policy.isThere());
    EXPECT_EQ(record()["version"], 9);
    EXPECT_EQ(record()["machine"], "m1");
    EXPECT_EQ(record()["topic"], nullptr);
    EXPECT_FALSE(m_policy.topic());
    EXPECT_EQ(fateOf(policy(9)), PolicyFate::InForce);
    EXPECT_EQ(m_policy.topic(), kOwn) << "when it comes again its topic is known";
    EXPECT_EQ(record()["topic"], "machine");
}

TEST_F(ThePolicyInForce, GivesWayToAnyOfItsVersionWhileItsTopicIsNotKnown) {
    std::ofstream(m_path) << policy(9);
    ASSERT_EQ(m_policy.restore(), "");
    EXPECT_EQ(fateOf(groupPolicy(9, "all"), kAll), PolicyFate::InForce);
}

TEST_F(ThePolicyInForce, IsSaidToBeGoneWhenItsFileIs) {
    ASSERT_EQ(fateOf(policy(9)), PolicyFate::InForce);
    std::filesystem::remove(m_path);
    EXPECT_EQ(m_policy.restore(), m_path + " is gone; this machine has had version 9");
    EXPECT_FALSE(m_policy.isThere());
}

TEST_F(ThePolicyInForce, IsNotThatOfAGroupWhichTheMachineHasLeft) {
    ASSERT_EQ(fateOf(groupPolicy(900, "sales"), kSales), PolicyFate::InForce);
    m_taker.groups = {"pilots"};
    PolicyInForce left = fresh();
    EXPECT_EQ(left.restore(), "the saved policy came from group sales, which this machine is not in any more");
    EXPECT_EQ(left.choose({{kAll, groupPolicy(5, "all")}}).judged.at(0).fate, PolicyFate::InForce);
}

TEST_F(ThePolicyInForce, LeavesTheOthersOfABatchForLaterWhenTheNewestCannotBeSaved) {
    ASSERT_EQ(fateOf(policy(5)), PolicyFate::InForce);
    std::filesystem::create_directories(m_path + ".new/in-the-way");
    const PolicyChoice choice = m_policy.choose({{kAll, groupPolicy(9, "all")}, {kOwn, policy(10)}});
    EXPECT_EQ(choice.judged.at(0).fate, PolicyFate::PassedOver);
    EXPECT_FALSE(choice.judged.at(0).isSaved);
    EXPECT_FALSE(choice.judged.at(1).isSaved);
    EXPECT_FALSE(choice.isNew);
}

TEST_F(ThePolicyInForce, IsTheSavedOneWhenThePowerFailedBeforeItWasRecorded) {
    ASSERT_EQ(fateOf(policy(9)), PolicyFate::InForce);
    std::ofstream(m_path) << policy(10);
    EXPECT_EQ(m_policy.restore(), "");
    ASSERT_TRUE(m_policy.isThere());
    EXPECT_EQ(record()["version"], 10);
}

TEST_F(ThePolicyInForce, IsNotAnOldCopyThatSomebodyPutThere) {
    ASSERT_EQ(fateOf(policy(9)), PolicyFate::InForce);
    std::ofstream(m_path) << policy(8);
    EXPECT_EQ(m_policy.restore(), m_path + ": it is older than version 9, which this machine has had");
    EXPECT_FALSE(m_policy.isThere());
}

TEST_F(ThePolicyInForce, IsNoneWhenTheSavedOneIsSpoiltAndNothingOlderIsTakenThen) {
    ASSERT_EQ(fateOf(policy(9)), PolicyFate::InForce);
    std::ofstream(m_path) << "{ half";
    EXPECT_NE(m_policy.restore(), "");
    EXPECT_FALSE(m_policy.isThere());
    EXPECT_EQ(saved(), "{ half");
    EXPECT_EQ(take(policy(8)).why, "it is older than version 9, which this machine has had");
    EXPECT_EQ(fateOf(groupPolicy(9, "all"), kAll), PolicyFate::InForce) << "what is not below it is taken";
}

TEST_F(ThePolicyInForce, IsTheSavedOneWhenItsRecordIsSpoilt) {
    ASSERT_EQ(fateOf(policy(9)), PolicyFate::InForce);
    std::ofstream(m_recordPath) << "{ half";
    EXPECT_NE(m_policy.restore().find(m_recordPath), std::string::npos);
    ASSERT_TRUE(m_policy.isThere());
    EXPECT_EQ(record()["version"], 9);
}

TEST_F(ThePolicyInForce, IsNotThatOfAnotherMachineOrSite) {
    ASSERT_EQ(fateOf(policy(9)), PolicyFate::InForce);
    for (const auto& [site, machine] : {std::pair("there", "m1"), std::pair("here", "m2")}) {
        m_taker.site = site;
        m_taker.machine = machine;
        PolicyInForce moved = fresh();
        EXPECT_EQ(moved.restore(), "the saved policy was taken as machine m1 of site here, which this machine is not");
        EXPECT_FALSE(moved.isThere());
    }
    PolicyInForce moved = fresh();
    moved.restore();
    EXPECT_EQ(moved.choose({{kOwn, policy(1)}}).judged.at(0).fate, PolicyFate::InForce) << "the new site's first";
    EXPECT_EQ(record()["machine"], "m2");
}

TEST_F(ThePolicyInForce, IsNotASavedOneWithoutASignatureWhenAKeyHasCome) {
    ASSERT_EQ(fateOf(policy(9)), PolicyFate::InForce);
    m_taker.keys = {PublicKey{}};
    PolicyInForce next = fresh();
    EXPECT_NE(next.restore(), "");
    EXPECT_FALSE(next.isThere());
    EXPECT_EQ(saved(), policy(9));
}

} // namespace
