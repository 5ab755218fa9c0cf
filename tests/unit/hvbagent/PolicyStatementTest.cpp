// What a machine says of its policies, as the document has it.
#include "platform/hvbagent/PolicyStatement.h"
#include "platform/hvbagent/Backoff.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using namespace HVBEnterprise::agent;
using nlohmann::json;

PolicyIdentity identity(std::int64_t version, const std::string& sha256) {
    PolicyIdentity made;
    made.version = version;
    made.id = "office";
    made.sha256 = sha256;
    return made;
}

JudgedPolicy judged(const std::string& group, PolicyFate fate, std::int64_t version, const std::string& sha256) {
    JudgedPolicy made;
    made.topic = {group};
    made.fate = fate;
    made.identity = identity(version, sha256);
    made.why = "why";
    return made;
}

StandingPolicy standing(std::optional<bool> enforced, std::optional<std::size_t> rowsMissing = 0) {
    return {.identity = identity(9, "s9"),
            .topic = PolicyTopic{"all"},
            .since = "then",
            .enforced = enforced,
            .rowsMissing = rowsMissing,
            .leftOut = {}};
}

json documentOf(const PolicyStatement& statement) {
    return json::parse(statementDocument(statement, "now"));
}

TEST(AStatement, SaysThatNothingIsInForce) {
    EXPECT_EQ(documentOf({}), json({{"time", "now"},
                                    {"in_force", nullptr},
                                    {"failed", nullptr},
                                    {"refused", nullptr},
                                    {"passed_over", json::array()}}));
}

TEST(AStatement, KeepsWhatIsInForceApartFromWhatWasRefusedAndPassedOver) {
    PolicyStatement statement;
    statement.standing = standing(true);
    statement.take(judged("", PolicyFate::PassedOver, 5, "s5"), "t1");
    statement.take(judged("sales", PolicyFate::Refused, 10, "s10"), "t2");
    const json document = documentOf(statement);
    EXPECT_EQ(document["in_force"], json({{"epoch", 1},
                                          {"version", 9},
                                          {"id", "office"},
                                          {"sha256", "s9"},
                                          {"topic", "group/all"},
                                          {"since", "then"},
                                          {"enforced", true},
                                          {"whole", true},
                                          {"rows_missing", 0},
                                          {"left_out", {{"count", 0}, {"first", json::array()}}}}));
    EXPECT_EQ(document["refused"], json({{"epoch", 1},
                                         {"version", 10},
                                         {"id", "office"},
                                         {"sha256", "s10"},
                                         {"topic", "group/sales"},
                                         {"why", "why"},
                                         {"time", "t2"}}));
    ASSERT_EQ(document["passed_over"].size(), 1U);
    EXPECT_EQ(document["passed_over"][0]["version"], 5);
    EXPECT_EQ(document["passed_over"][0]["topic"], "machine");
}

TEST(AStatement, SaysWhetherThePolicyIsWholeOrThatNobodyCanTell) {
    const auto wholeOf = [](const StandingPolicy& policy) {
        PolicyStatement statement;
        statement.standing = policy;
        return documentOf(statement)["in_force"]["whole"];
    };
    EXPECT_EQ(wholeOf(standing({})), nullptr);
    EXPECT_EQ(wholeOf(standing(false)), false);
    EXPECT_EQ(wholeOf(standing(true, 3)), false);
    EXPECT_EQ(wholeOf(standing(true, std::nullopt)), nullptr);
    StandingPolicy short_ = standing(true, std::nullopt);
    short_.leftOut = {.count = 1, .first = {{"szSite0", Sentrel::policy::LeftOutReason::Empty}}};
    EXPECT_EQ(wholeOf(short_), false);
}

TEST(AStatement, NamesTheEntriesThatNobodyCanPutIntoForce) {
    using Sentrel::policy::LeftOutReason;
    PolicyStatement statement;
    statement.standing = standing(true);
    statement.standing->leftOut = {.count = 5000,
                                   .first = {{"a", LeftOutReason::Missing},
                                             {"b", LeftOutReason::TooLong},
                                             {"c", LeftOutReason::Empty},
                                             {"d", LeftOutReason::Version6},
                                             {"e", LeftOutReason::BeyondCount}}};
    EXPECT_EQ(documentOf(statement)["in_force"]["left_out"],
              json({{"count", 5000},
                    {"first",
                     {{{"key", "a"}, {"why", "is missing"}},
                      {{"key", "b"}, {"why", "is too long"}},
                      {{"key", "c"}, {"why", "is empty"}},
                      {{"key", "d"}, {"why", "is a range of version 6"}},
                      {{"key", "e"}, {"why", "is beyond the count"}}}}}));
}

TEST(AStatement, TellsARefusalWithTheTimeOfTheFirstAndOfTheLastTopic) {
    PolicyStatement statement;
    statement.take(judged("sales", PolicyFate::Refused, 10, "s10"), "t1");
    statement.take(judged("sales", PolicyFate::Refused, 10, "s10"), "t2"); // the broker delivered it again
    EXPECT_EQ(documentOf(statement)["refused"]["time"], "t1");
    statement.take(judged("", PolicyFate::Refused, 11, "s11"), "t3");
    EXPECT_EQ(documentOf(statement)["refused"]["version"], 11);
    statement.take(judged("", PolicyFate::InForce, 12, "s12"), "t4");
    EXPECT_EQ(documentOf(statement)["refused"]["version"], 10) << "the topic has another policy now";
}

TEST(AStatement, TellsTheRefusalThatWasJudgedLastThoughItWasJudgedSoBefore) {
    PolicyStatement statement;
    statement.take(judged("", PolicyFate::Refused, 10, "s10"), "t1");
    statement.take(judged("sales", PolicyFate::Refused, 11, "s11"), "t2");
    statement.take(judged("", PolicyFate::Refused, 10, "s10"), "t3"); // somebody pushed it again
    EXPECT_EQ(documentOf(statement)["refused"]["version"], 10);
    EXPECT_EQ(documentOf(statement)["refused"]["time"], "t1");
}

TEST(AStatement, PassesOverThePolicyThatAnotherTopicsReplaced) {
    PolicyStatement statement;
    StandingPolicy own = standing(true);
    own.topic = PolicyTopic{};
    statement.replaceStanding(own, "t1");
    StandingPolicy next = standing({});
    next.identity = identity(12, "s12");
    statement.replaceStanding(next, "t2");
    const json document = documentOf(statement);
    EXPECT_EQ(document["in_force"]["version"], 12);
    ASSERT_EQ(document["passed_over"].size(), 1U);
    EXPECT_EQ(document["passed_over"][0]["topic"], "machine");
    EXPECT_EQ(document["passed_over"][0]["version"], 9);
}

TEST(AStatement, HasNoTopicWhenThatIsNotKnown) {
    PolicyStatement statement;
    statement.standing = standing(true);
    statement.standing->topic.reset();
    EXPECT_EQ(documentOf(statement)["in_force"]["topic"], nullptr);
}

TEST(AStatement, HasNoVersionOfADocumentThatHasNone) {
    PolicyStatement statement;
    JudgedPolicy unread = judged("", PolicyFate::Refused, 1, "hash");
    unread.identity.version.reset();
    unread.why = "bad \xFF byte";
    statement.take(unread, "t");
    const json refused = documentOf(statement)["refused"];
    EXPECT_EQ(refused["version"], nullptr);
    EXPECT_EQ(refused["epoch"], nullptr);
    EXPECT_EQ(refused["sha256"], "hash");
    EXPECT_EQ(refused["why"], "bad \uFFFD byte");
}

TEST(ABackoff, DoublesItsPausesFromTheFirstToTheLast) {
    using std::chrono::milliseconds;
    Backoff backoff(milliseconds(100), milliseconds(350));
    EXPECT_FALSE(backoff.at());
    const Backoff::Clock::time_point now{};
    const auto expectPause = [&](int longest) {
        backoff.later(now);
        ASSERT_TRUE(backoff.at());
        EXPECT_GE(*backoff.at(), now + milliseconds(longest / 2));
        EXPECT_LE(*backoff.at(), now + milliseconds(longest));
        EXPECT_FALSE(backoff.isDue(now));
        EXPECT_TRUE(backoff.isDue(now + milliseconds(longest)));
        backoff.begin();
        EXPECT_FALSE(backoff.at());
    };
    for (const int longest : {100, 200, 350, 350}) {
        expectPause(longest);
    }
    backoff.reset();
    expectPause(100);
}

} // namespace
