// A browser's conversation without its pipes, with settings that the test makes.
#include "browser/host/HostSession.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <memory>
#include <utility>
#include <vector>

namespace Sentrel::host {
namespace {

using nlohmann::json;
using settings::SettingsSnapshot;

/// Says of every site what the test says.
class OneRating : public ratings::RatingProvider {
public:
    bool refresh() override { return std::exchange(hasNews, false); }
    ratings::SiteRating rate(const browsing::WebUrl& /*url*/) const override { return rating; }
    ratings::RatingStatus status() const override { return state; }
    std::optional<ratings::RatingTable> table() const override { return names; }

    ratings::SiteRating rating;
    ratings::RatingStatus state;
    std::optional<ratings::RatingTable> names{};
    bool hasNews = false;
};

class AHostSession : public testing::Test {
protected:
    explicit AHostSession(ratings::RatingProvider* rater = nullptr)
        : m_session("1.2.3", rater,
                    {[this](const std::string& message) { m_said.push_back(json::parse(message)); },
                     [this](const STEventData& record) {
                         m_records.push_back(record);
                         return m_lost;
                     },
                     [this](const AccessQuestion& question) {
                         m_questions.push_back(question);
                         return m_takesQuestions;
                     }}) {
        m_snapshot.state = settings::SnapshotState::Whole;
        m_snapshot.readAt = 1'700'000'000'000'000;
        m_snapshot.allowBlock = {{"blocked.example", 1}, {"allowed.example", 0}};
    }

    json answer(const std::string& message) {
        m_said.clear();
        m_session.take(message);
        EXPECT_EQ(m_said.size(), 1U) << message;
        return m_said.empty() ? json() : m_said.front();
    }

    void greet(bool rules = false) {
        const json hello{
            {"type", "hello"}, {"version", 1}, {"browser", "chromium"}, {"rules", rules}, {"ratings", false}};
        EXPECT_EQ(answer(hello.dump()).at("type"), "welcome");
    }

    json decide(const std::string& url) {
        return answer(json{{"type", "decide"}, {"id", 5}, {"url", url}, {"frame", "sub"}}.dump());
    }
    json report(const std::string& url, const std::string& answered = "none") {
        return answer(json{{"type", "report"}, {"id", 6}, {"url", url}, {"answer", answered}}.dump());
    }

    void request(const std::string& url, const std::string& reason) {
        m_said.clear();
        m_session.take(json{{"type", "request"}, {"id", 7}, {"url", url}, {"reason", reason}}.dump());
    }
    /// What it says without asking anybody.
    json refusal() {
        EXPECT_TRUE(m_questions.empty());
        EXPECT_EQ(m_said.size(), 1U);
        return m_said.empty() ? json() : m_said.front();
    }

    void hold() {
        m_session.hold({HeldSettings::State::Current, "", std::make_shared<const WholeSettings>(m_snapshot)});
    }

    json owed() {
        const std::optional<std::string> settings = m_session.owedSettings();
        return settings ? json::parse(*settings) : json();
    }

    SettingsSnapshot m_snapshot;
    std::vector<json> m_said;
    std::vector<STEventData> m_records;
    std::uint64_t m_lost = 0;
    std::vector<AccessQuestion> m_questions;
    bool m_takesQuestions = true;
    HostSession m_session;
};

TEST_F(AHostSession, TakesNothingInFrontOfHello) {
    const json error = decide("http://a.example/");
    EXPECT_EQ(error.at("type"), "error");
    EXPECT_EQ(error.at("code"), "order");
    EXPECT_EQ(error.at("id"), 5);
    EXPECT_EQ(report("http://a.example/").at("id"), 6);
    EXPECT_TRUE(owed().is_null());
    greet();
    EXPECT_EQ(decide("http://a.example/").at("type"), "decision");
}

TEST_F(AHostSession, TakesHelloOnce) {
    greet(true);
    const std::string again = R"({"type":"hello","version":1,"browser":"firefox","rules":false,"ratings":false})";
    EXPECT_EQ(answer(again).at("code"), "order");
    hold();
    EXPECT_EQ(owed().count("rules"), 1U) << "the first one holds";
}

TEST_F(AHostSession, SaysItsVersionToABrowserOfAnother) {
    const json error = answer(R"({"type":"hello","version":2})");
    EXPECT_EQ(error.at("code"), "version");
    EXPECT_EQ(error.at("version"), 1);
    greet();
}

TEST_F(AHostSession, HasPagesWaitWhileThereAreNoSettings) {
    greet();
    const json settings = owed();
    EXPECT_EQ(settings.at("state"), "waiting");
    EXPECT_NE(settings.at("because"), "");
    EXPECT_EQ(settings.at("since"), "");
    EXPECT_EQ(settings.at("protecting"), true);
    EXPECT_EQ(settings.at("managed"), nullptr);
    const json decision = decide("HTTP://A.example");
    EXPECT_EQ(decision.at("action"), "wait");
    EXPECT_EQ(decision.at("url"), "http://a.example/");
    EXPECT_EQ(report("http://blocked.example/").at("outcome"), "dropped");
    EXPECT_TRUE(m_records.empty());
}

TEST_F(AHostSession, TellsSettingsOnceAndOnlyTheLastOnes) {
    greet();
    hold();
    m_snapshot.allowBlock.clear();
    hold();
    const json settings = owed();
    EXPECT_EQ(settings.at("state"), "current");
    EXPECT_EQ(settings.at("summary").at("entries"), 0);
    EXPECT_EQ(settings.at("since"), "2023-11-14T22:13:20Z");
    EXPECT_TRUE(owed().is_null());
    hold();
    EXPECT_GT(owed().at("generation"), settings.at("generation"));
}

TEST_F(AHostSession, TellsWhatDecides) {
    m_snapshot.numbers = {{"ALLOW_OVER_Block", 1}, {"UNCAT_Block", 1}};
    m_snapshot.categories = {{"Games\xFF", 1}};
    m_snapshot.privateRanges = {"10.0.0.0/8", "none"};
    m_snapshot.allowBlock = {{"*.Blocked.example:8443/a", 1}, {"\xFFno entry \xC3", 0}};
    hold();
    greet(true);
    const json settings = owed();
    EXPECT_EQ(settings.at("summary").at("numbers"), json::parse(R"({"ALLOW_OVER_Block": 1, "UNCAT_Block": 1})"));
    const json& rules = settings.at("rules");
    EXPECT_EQ(rules.at("allowsFirst"), true);
    EXPECT_EQ(rules.at("blocksUncategorised"), true);
    EXPECT_EQ(rules.at("reportsGreen"), false);
    EXPECT_EQ(rules.at("actions").at("PHISHING"), "BLOCK");
    EXPECT_EQ(rules.at("entries"),
              json::parse(R"([[false, "*.Blocked.example:8443/a", "", "blocked.example", true, 8443, "/a"],
                              [true, "\ufffdno entry \ufffd"]])"));
    EXPECT_EQ(rules.at("ranges"), json::parse(R"([["10.0.0.0/8", 167772160, 184549375], ["none"]])"));
    EXPECT_EQ(rules.at("categories"), json::parse(R"(["Games\ufffd"])"));
}

TEST_F(AHostSession, SaysWhichEntryDecidesAndWhichIsOverruled) {
    m_snapshot.allowBlock.push_back({"*.example", 1});
    m_snapshot.numbers = {{"ALLOW_OVER_Block", 1}};
    hold();
    greet();
    const json decision = decide("http://allowed.example/");
    EXPECT_EQ(decision.at("action"), "allow");
    EXPECT_EQ(decision.at("entry"), json::parse(R"({"place": 1, "text": "allowed.example", "allows": true})"));
    EXPECT_EQ(decision.at("overruled"), json::parse(R"({"place": 2, "text": "*.example", "allows": false})"));
    EXPECT_EQ(decision.at("id"), 5);
}

TEST_F(AHostSession, SaysWhetherAPolicyRulesWhatDecides) {
    greet();
    hold();
    EXPECT_EQ(decide("http://blocked.example/").at("ruled"), nullptr) << "not known";
    m_snapshot.policy = settings::MachinePolicy{};
    hold();
    EXPECT_EQ(decide("http://blocked.example/").at("ruled"), false);
    EXPECT_EQ(owed().at("managed"), false);
    m_snapshot.policy = settings::MachinePolicy{true, 3, "", {"allow_block"}};
    hold();
    EXPECT_EQ(decide("http://blocked.example/").at("ruled"), true);
    EXPECT_EQ(decide("http://other.example/").at("ruled"), false);
    const json settings = owed();
    EXPECT_EQ(settings.at("managed"), true);
    EXPECT_EQ(settings.at("ruled"), json::parse(R"(["allow_block"])"));
    m_snapshot.policy->trouble = "cannot be read";
    hold();
    EXPECT_EQ(decide("http://blocked.example/").at("ruled"), nullptr);
}

TEST_F(AHostSession, ReportsWhatIsReportedAtOnce) {
    hold();
    greet();
    const json reported = report("HTTP://blocked.example/" + std::string(400, 'x'));
    EXPECT_EQ(reported.at("outcome"), "queued");
    EXPECT_EQ(reported.at("lost"), 0);
    ASSERT_EQ(m_records.size(), 1U);
    const STEventData& record = m_records.front();
    EXPECT_STREQ(record.eventId, "browser-host");
    EXPECT_EQ(std::string(record.url), "http://blocked.example/" + std::string(248, 'x')) << "271 bytes";
    EXPECT_STREQ(record.browserProcessName, "chromium");
    EXPECT_EQ(record.action, 3);
    EXPECT_EQ(record.inAllowBlockList, 1);
    EXPECT_EQ(record.userAction, 0);
    EXPECT_EQ(record.count, 1);
    EXPECT_EQ(report("http://blocked.example/", "went-on").at("outcome"), "not needed") << "nobody warned of it";
    EXPECT_EQ(report("http://other.example/").at("outcome"), "not needed");
    m_lost = 7;
    EXPECT_EQ(report("http://blocked.example/").at("lost"), 7);
}

TEST_F(AHostSession, AsksForAccessToABlockedPageAndDecidesMeanwhile) {
    hold();
    greet();
    request("HTTP://Blocked.example/a?b=c#d", "for work");
    EXPECT_TRUE(m_said.empty()) << "the hub has not answered";
    ASSERT_EQ(m_questions.size(), 1U);
    EXPECT_EQ(m_questions[0].url, "http://blocked.example/a?b=c");
    EXPECT_EQ(m_questions[0].reason, "for work");
    EXPECT_TRUE(m_questions[0].isAsking);
    EXPECT_EQ(decide("http://blocked.example/").at("action"), "block");
    m_said.clear();
    m_session.tell({7,
                    AccessOutcome::Asked,
                    "http://blocked.example/a?b=c",
                    12,
                    "",
                    {11, "denied", 1'700'000'000'000'000, 1'700'000'060'000'000, "not now", 0}});
    EXPECT_EQ(m_said.at(0), json::parse(R"({"type": "requested", "id": 7, "outcome": "asked",
        "url": "http://blocked.example/a?b=c", "number": 12, "because": "",
        "last": {"number": 11, "state": "denied", "asked": "2023-11-14T22:13:20Z",
                 "answered": "2023-11-14T22:14:20Z", "answer": "not now", "until": ""}})"));
}

TEST_F(AHostSession, LooksWhatCameOfARequestWithoutAsking) {
    hold();
    greet();
    m_session.take(R"({"type": "requests", "id": 8, "url": "http://blocked.example/"})");
    ASSERT_EQ(m_questions.size(), 1U);
    EXPECT_FALSE(m_questions[0].isAsking);
}

TEST_F(AHostSession, AsksForNothingButBlockedPages) {
    greet();
    request("http://blocked.example/", "");
    EXPECT_EQ(refusal().at("outcome"), "away") << "there are no settings";
    hold();
    for (const char* url : {"http://allowed.example/", "http://other.example/", "about:blank", ""}) {
        request(url, "");
        EXPECT_EQ(refusal().at("outcome"), "refused") << url;
        EXPECT_EQ(refusal().at("because"), "this page is not blocked");
        EXPECT_EQ(refusal().at("last"), nullptr);
    }
}

TEST_F(AHostSession, AsksForAsMuchOfALongAddressAsLeavesRoomForAReason) {
    hold();
    greet();
    request("http://blocked.example/a?" + std::string(400, 'q'), std::string(300, 'r'));
    request("http://blocked.example/" + std::string(400, 'p') + "?q", "");
    ASSERT_EQ(m_questions.size(), 2U);
    EXPECT_EQ(m_questions[0].url, "http://blocked.example/a");
    EXPECT_EQ(m_questions[1].url, "http://blocked.example/");
}

TEST_F(AHostSession, RefusesAReasonThatTheHubHasNoRoomFor) {
    hold();
    greet();
    request("http://blocked.example/", std::string(478, 'r'));
    EXPECT_EQ(refusal().at("outcome"), "refused");
    EXPECT_EQ(refusal().at("because"), "the reason has 478 bytes, and there is room for 477: shorten it");
}

TEST_F(AHostSession, RefusesARequestWhenTooManyWait) {
    hold();
    greet();
    m_takesQuestions = false;
    request("http://blocked.example/", "");
    ASSERT_EQ(m_said.size(), 1U);
    EXPECT_EQ(m_said[0].at("outcome"), "refused");
    EXPECT_EQ(m_said[0].at("id"), 7);
}

/// The same with somebody who rates sites.
class ARatedHostSession : public AHostSession {
protected:
    ARatedHostSession() : AHostSession(&m_rater) {
        m_rater.rating.standing.rating = 40;
        m_rater.rating.ratedBy = "our list";
        m_rater.state.isReachable = true;
        hold();
        greet();
    }

    OneRating m_rater;
};

TEST_F(ARatedHostSession, DecidesByTheRating) {
    const json decision = decide("http://a.example/");
    EXPECT_EQ(decision.at("action"), "warn");
    EXPECT_EQ(decision.at("by"), "rating");
    EXPECT_EQ(decision.at("ratedBy"), "our list");
    EXPECT_EQ(decision.at("rating"), 40);
    EXPECT_EQ(decision.at("ratingName"), "YELLOW");
    EXPECT_EQ(decision.at("setting"), "YellowSiteAction");
    EXPECT_EQ(decision.at("reporting"), "when answered");
}

TEST_F(ARatedHostSession, NamesNoListWhereTheRatingDoesNotCount) {
    EXPECT_EQ(decide("about:blank").at("ratedBy"), "");
    m_snapshot.privateRanges = {"192.0.2.0/24"};
    hold();
    EXPECT_EQ(decide("http://192.0.2.1/").at("ratedBy"), "");
    EXPECT_EQ(decide("http://blocked.example/").at("ratedBy"), "our list");
}

TEST_F(ARatedHostSession, ReportsAWarningWithItsAnswer) {
    EXPECT_EQ(report("http://a.example/").at("outcome"), "not needed") << "nobody has answered";
    report("http://a.example/", "went-on");
    report("http://a.example/", "turned-back");
    ASSERT_EQ(m_records.size(), 2U);
    EXPECT_EQ(m_records[0].userAction, 5);
    EXPECT_EQ(m_records[1].userAction, 6);
    EXPECT_EQ(m_records[0].action, 2);
}

TEST_F(ARatedHostSession, TellsAChangeOfTheRatings) {
    owed();
    m_session.refreshRatings();
    EXPECT_TRUE(owed().is_null());
    m_rater.state.isReachable = false;
    m_rater.state.because = "it is too old";
    m_rater.state.lists.emplace_back();
    m_rater.state.lists.back().name = "our list";
    m_rater.state.lists.back().count = 3;
    m_rater.hasNews = true;
    m_session.refreshRatings();
    const json ratings = owed().at("ratings");
    EXPECT_EQ(ratings.at("reachable"), false);
    EXPECT_EQ(ratings.at("because"), "it is too old");
    EXPECT_EQ(ratings.at("lists").at(0).at("name"), "our list");
    EXPECT_EQ(ratings.at("lists").at(0).at("count"), 3);
}

json ratingsOwed(HostSession& session) {
    const std::optional<std::string> ratings = session.owedRatings();
    return ratings ? json::parse(*ratings) : json();
}

TEST(AHostSessionThatIsAskedForRatings, TellsAllThatIsKnownOfSitesAndEachChange) {
    OneRating rater;
    rater.state.isReachable = true;
    HostSession session(
        "1.2.3", &rater,
        {[](const std::string&) {}, [](const STEventData&) { return 0; }, [](const AccessQuestion&) { return false; }});
    EXPECT_TRUE(ratingsOwed(session).is_null()) << "nobody has said hello";
    session.take(R"({"type":"hello","version":1,"browser":"chromium","rules":true,"ratings":true})");
    const json nothing = ratingsOwed(session);
    EXPECT_EQ(nothing.at("classes").size(), 1U);
    EXPECT_EQ(nothing.at("classes").at(0).at("rating"), browsing::kNoRating);
    EXPECT_EQ(nothing.at("hashes"), "");
    EXPECT_TRUE(ratingsOwed(session).is_null()) << "once is enough";
    ratings::RatingTable table{{1, 2, 3}, {{}, {{60, {{"Games", 7}}, true, true}, "our list"}}, {}};
    table.names = {{0x0102030405060708, 1, 0}, {0x1112131415161718, 0, 0x0201}};
    rater.names = table;
    rater.hasNews = true;
    session.refreshRatings();
    EXPECT_EQ(ratingsOwed(session), json::parse(R"({"type":"ratings","reachable":true,"key":"AQIDAAAAAAAAAAAAAAAAAA==",
                "classes":[{"rating":-100,"categories":[],"phishing":false,"ratedBy":""},
                           {"rating":60,"categories":[{"name":"Games","number":7}],"phishing":true,"ratedBy":"our list"}],
                "hashes":"CAcGBQQDAgEYFxYVFBMSEQ==","itself":"AQAAAA==","below":"AAABAg=="})"));
}

TEST_F(ARatedHostSession, TellsNoNamesToABrowserThatDidNotAskForThem) {
    m_rater.hasNews = true;
    m_session.refreshRatings();
    EXPECT_TRUE(ratingsOwed(m_session).is_null());
}

} // namespace
} // namespace Sentrel::host
