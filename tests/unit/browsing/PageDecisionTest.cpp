// What happens to a page: by the table that says it, by all fields of the record together, and what the record holds.
// The events' rules that decide are real.
#include "browser/decision/PageDecision.h"
#include "tests/unit/browsing/DecisionVectors.h"

#include <gtest/gtest.h>
#include <map>

namespace Sentrel::browsing {
namespace {

using nlohmann::json;
using settings::SettingsSnapshot;

SettingsSnapshot settingsOf(const json& row) {
    SettingsSnapshot snapshot;
    snapshot.state = settings::SnapshotState::Whole;
    snapshot.numbers = row.value("numbers", std::map<std::string, std::int32_t>());
    for (const auto& entry : row.value("list", json::array())) {
        snapshot.allowBlock.push_back({entry[0], entry[1]});
    }
    for (const auto& name : row.value("blocked_categories", json::array())) {
        snapshot.categories.push_back({name, row.value("category_value", 3)});
    }
    snapshot.privateRanges = row.value("ranges", std::vector<std::string>());
    return snapshot;
}

SiteStanding standingOf(const json& row) {
    SiteStanding standing;
    standing.rating = row.value("rating", kNoRating);
    standing.isPhishing = row.value("phishing", false);
    standing.isReachable = row.value("reachable", true);
    for (const auto& name : row.value("categories", json::array())) {
        standing.categories.push_back({name, 42});
    }
    return standing;
}

json placeJson(std::size_t place) {
    return place == SiteList::kNone ? json() : json(place);
}

const char* word(Stage stage) {
    static const std::map<Stage, const char*> words{{Stage::Address, "address"},
                                                    {Stage::Protection, "protection"},
                                                    {Stage::List, "list"},
                                                    {Stage::PrivateRange, "private range"},
                                                    {Stage::Reachability, "reachability"},
                                                    {Stage::Category, "category"},
                                                    {Stage::Phishing, "phishing"},
                                                    {Stage::Rating, "rating"}};
    return words.at(stage);
}

const char* word(PageAction action) {
    return action == PageAction::Block ? "block" : action == PageAction::Warn ? "warn" : "allow";
}

const char* word(Reporting reporting) {
    return reporting == Reporting::AtOnce ? "at once" : reporting == Reporting::Never ? "never" : "when answered";
}

/// A decision with the fields that a row of the table has.
json shown(const PageDecision& decision) {
    return {{"action", word(decision.action())},
            {"by", word(decision.decidedBy())},
            {"setting", decision.setting},
            {"reported", word(decision.reporting)},
            {"entry", placeJson(decision.entry)},
            {"overruled", placeJson(decision.overruled)},
            {"range", placeJson(decision.range)},
            {"category", decision.category ? json(decision.category->name) : json()},
            {"safe_search", decision.safeSearch ? json(*decision.safeSearch) : json()}};
}

json expectedOf(const json& row) {
    json expected;
    for (const char* field :
         {"action", "by", "setting", "reported", "entry", "overruled", "range", "category", "safe_search"}) {
        expected[field] = row.contains(field) ? row[field] : json();
    }
    return expected;
}

TEST(APageDecision, IsTheOneThatTheTableSays) {
    std::size_t checked = 0;
    for (const auto& row : decisionVectors("pages.json", "pages")) {
        const PageDecision decision =
            PageRules(settingsOf(row)).decide(row.at("url").get<std::string>(), standingOf(row));
        EXPECT_EQ(shown(decision).dump(), expectedOf(row).dump()) << row.at("fact");
        ++checked;
    }
    EXPECT_GT(checked, 50U);
}

/// Settings and a standing from the bits of a number, so that every combination is there once.
class Combination {
public:
    static constexpr unsigned kBits = 12;

    explicit Combination(unsigned number) : m_bits(number) {}

    SettingsSnapshot settings() {
        SettingsSnapshot snapshot;
        snapshot.state = settings::SnapshotState::Whole;
        for (const char* key : {"CAT_Enabled", "UNCAT_Block", "GenPolicyBlockPhishingAction",
                                "GenPolicyRPXUnReachableAction", "ALLOW_OVER_Block"}) {
            snapshot.numbers[key] = next() ? 1 : 0;
        }
        if (next()) {
            snapshot.allowBlock.push_back({"192.0.2.1", 0});
        }
        if (next()) {
            snapshot.allowBlock.push_back({"192.0.2.1", 1});
        }
        if (next()) {
            snapshot.privateRanges.emplace_back("192.0.2.0/24");
        }
        snapshot.categories.push_back({"Games", 3});
        return snapshot;
    }

    SiteStanding standing() {
        SiteStanding standing;
        standing.isPhishing = next();
        standing.isReachable = next();
        if (next()) {
            standing.categories.push_back({"Games", 0});
        }
        standing.rating = next() ? 60 : 0;
        return standing;
    }

private:
    bool next() {
        const bool isSet = (m_bits & 1U) != 0;
        m_bits >>= 1U;
        return isSet;
    }

    unsigned m_bits;
};

/// Whether a reason can lead to an action, whatever else there is.
bool agree(const PageRules& rules, const PageDecision& decision) {
    switch (decision.decidedBy()) {
    case Stage::List:
        return (rules.entries().at(decision.entry).value != 0) == (decision.action() == PageAction::Block);
    case Stage::Reachability:
    case Stage::Category:
    case Stage::Phishing:
        return decision.action() == PageAction::Block;
    case Stage::Rating:
        return (decision.record.urlRating >= 50) == (decision.action() == PageAction::Block);
    default:
        return decision.action() == PageAction::Allow;
    }
}

TEST(APageDecision, SaysWhatTheRulesDecidedBy) {
    std::map<Stage, int> reasons;
    for (unsigned number = 0; number < 1U << Combination::kBits; ++number) {
        Combination combination(number);
        const PageRules rules(combination.settings());
        const PageDecision decision = rules.decide("http://192.0.2.1/", combination.standing());
        EXPECT_TRUE(agree(rules, decision)) << number << ": " << shown(decision);
        STEventData again = decision.record;
        NPlgHelper::RateActionMap actions = rules.actions();
        NPlgHelper::GetURLAction(again, actions);
        EXPECT_EQ(again.action, decision.record.action) << number;
        ++reasons[decision.decidedBy()];
    }
    EXPECT_EQ(reasons.size(), 6U) << "every reason there is for a page of the web";
}

TEST(APageDecision, HasItsStepsUpToTheOneThatDecided) {
    const PageRules rules{SettingsSnapshot()};
    SiteStanding phishing;
    phishing.isPhishing = true;
    const std::vector<Step> expected{
        {Stage::Address, false},      {Stage::Protection, false}, {Stage::List, false},   {Stage::PrivateRange, false},
        {Stage::Reachability, false}, {Stage::Category, false},   {Stage::Phishing, true}};
    EXPECT_EQ(rules.decide("https://site.example/", phishing).steps, expected);
}

TEST(TheRecordOfADecision, HasWhatDecided) {
    SettingsSnapshot snapshot;
    snapshot.allowBlock = {{"site.example", 5}};
    snapshot.categories = {{"Games", 3}};
    SiteStanding standing{.rating = 40, .categories = {{"Games", 42}}, .isPhishing = true, .isReachable = false};
    const STEventData record = PageRules(snapshot).decide("https://User@Site.example", standing).record;
    EXPECT_STREQ(record.url, "https://site.example/") << "with a path, so that the daemon reports it";
    EXPECT_EQ(record.urlRating, 40);
    EXPECT_EQ(record.action, 3);
    EXPECT_EQ(record.inAllowBlockList, 1);
    EXPECT_EQ(record.blockedInAllowBlockList, 1);
    EXPECT_EQ(record.blockedInCategory, 1);
    EXPECT_EQ(record.blockedCategoryId, 42);
    EXPECT_EQ(record.isPhishing, 1);
    EXPECT_EQ(record.isRpxReachable, 0);
    EXPECT_EQ(record.count, 1);
    EXPECT_EQ(record.userAction, static_cast<std::int32_t>(UserAction::None));
    EXPECT_STREQ(record.eventId, "");
    EXPECT_STREQ(record.browserProcessName, "");
}

TEST(TheRecordOfADecision, CutsALongAddressWhereTheFieldEnds) {
    const std::string url = "https://site.example/" + std::string(5000, 'a');
    const PageDecision decision = PageRules(SettingsSnapshot()).decide(url, {});
    EXPECT_EQ(decision.record.url, url.substr(0, 271));
    EXPECT_EQ(decision.url, url);
}

TEST(TheRecordOfADecision, HasTheRatingOfAPrivateAddressThatAnEntryNames) {
    SettingsSnapshot snapshot;
    snapshot.privateRanges = {"10.0.0.0/8"};
    EXPECT_EQ(PageRules(snapshot).decide("http://10.0.0.1/", {.rating = 60}).record.urlRating, 0);
    snapshot.allowBlock = {{"10.0.0.1", 1}};
    EXPECT_EQ(PageRules(snapshot).decide("http://10.0.0.1/", {.rating = 60}).record.urlRating, 60);
}

TEST(UserActions, AreNoneOfTheDaemonsOwn) {
    for (const UserAction action : {UserAction::WentOn, UserAction::TurnedBack}) {
        EXPECT_GE(static_cast<std::int32_t>(action), 5);
    }
}

} // namespace
} // namespace Sentrel::browsing
