// What the check of a policy says of it.
#include "apps/sentrelctl/policy/PolicyCheck.h"
#include "apps/sentrelctl/policy/PolicyReport.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace Sentrel::ctl {
namespace {

using nlohmann::json;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

json wholePolicy() {
    return json::parse(R"({
        "version": 4, "id": "office",
        "features": {
            "KPF_General": {"Sentrel": {"bEnableSentrel": 1}},
            "KPF_ContentFiltering": {
                "ContentActions": {"bEnableCategorization": 1, "uiBitCount": 2, "szActionCodes": "30",
                                   "uiContentBitCodes": "gb,,sn"},
                "RatingActions": {"uiOverall": 84}},
            "KPF_BlockAndAllowList": {"BlockAndAllowList": {
                "bPrecedenceOverProhibitLists": 0, "uiSiteCount": 2,
                "szSite0": "http://a/", "Action0": 0, "szSite1": "http://b/", "Action1": 1}}}})");
}

json& general(json& policy) {
    return policy["features"]["KPF_General"];
}
json& content(json& policy) {
    return policy["features"]["KPF_ContentFiltering"]["ContentActions"];
}
json& sites(json& policy) {
    return policy["features"]["KPF_BlockAndAllowList"]["BlockAndAllowList"];
}

constexpr const char* kContentPlace = "/features/KPF_ContentFiltering/ContentActions/";
constexpr const char* kSitesPlace = "/features/KPF_BlockAndAllowList/BlockAndAllowList/";

PolicyCheck checked(const json& policy) {
    const CheckedPolicy read = checkedPolicy(policy.dump(), {});
    EXPECT_EQ(read.reading.refused, "");
    return read.check;
}

/// The problems as lines; those that are fatal begin with "!".
std::vector<std::string> problemsOf(const json& policy) {
    std::vector<std::string> lines;
    for (const PolicyProblem& each : checked(policy).problems) {
        lines.push_back((each.isFatal ? "!" : "") + each.place + ": " + each.what);
    }
    return lines;
}

std::vector<std::string> effectsOf(const json& policy) {
    return checked(policy).effects;
}

TEST(APolicyCheck, SaysInWordsWhatAWholePolicyDoes) {
    const json policy = wholePolicy();
    EXPECT_THAT(problemsOf(policy), IsEmpty());
    EXPECT_THAT(effectsOf(policy),
                ElementsAre("protection on", "category blocking on", "1 category blocked", "uncategorized sites: allow",
                            "yellow sites: block", "red sites: warn", "unrated sites: allow",
                            "2 sites: 1 blocked, 1 allowed, block entries win"));
}

TEST(APolicyCheck, TellsTheSettingsOfTheGeneralPass) {
    json policy = wholePolicy();
    general(policy)["EventLogging"] = {{"bGreenRatedSites", 1}, {"bAllowedConfiguredBlockAllowList", 0}};
    general(policy)["ActionEnforcement"] = {{"applyActionNonRPX", 0},       {"bPhishingBlock", 1},
                                            {"bRpxFailClose", 0},           {"uiAgumentIPCount", 2},
                                            {"szAgumentIP_0", "192.0.2.1"}, {"szAgumentIP_1", "2001:db8::1"}};
    const std::vector<std::string> effects = effectsOf(policy);
    EXPECT_EQ(
        std::vector<std::string>(effects.begin(), effects.begin() + 7),
        (std::vector<std::string>{"protection on", "green sites: logged", "allowed entries of the list: not logged",
                                  "unverified sites: block", "phishing pages: block",
                                  "while the reputation service is away: allow", "1 private address range"}));
    EXPECT_THAT(problemsOf(policy), ElementsAre("/features/KPF_General/ActionEnforcement/szAgumentIP_1: is an IPv6 "
                                                "range, which the daemon leaves out"));
}

TEST(APolicyCheck, TellsOfTheActionForUnverifiedSitesThatIsNotItself) {
    for (const auto& [value, words] :
         std::map<int, std::string>{{0, "block"}, {1, "allow"}, {2, "warn"}, {7, "allow"}}) {
        json policy = wholePolicy();
        general(policy)["ActionEnforcement"]["applyActionNonRPX"] = value;
        EXPECT_THAT(effectsOf(policy), Contains("unverified sites: " + words)) << value;
        EXPECT_EQ(problemsOf(policy).empty(), value <= 2) << value;
    }
}

TEST(APolicyCheck, SaysThatASwitchIsOffForEveryValueButOne) {
    json policy = wholePolicy();
    general(policy)["Sentrel"]["bEnableSentrel"] = 2;
    EXPECT_THAT(effectsOf(policy), Contains("protection off"));
    EXPECT_THAT(problemsOf(policy),
                ElementsAre("/features/KPF_General/Sentrel/bEnableSentrel: is 2, which means off: only 1 is on"));
}

TEST(APolicyCheck, SaysAsWhatAValueIsReadThatIsNoNumber) {
    json policy = wholePolicy();
    general(policy)["Sentrel"]["bEnableSentrel"] = "yes";
    EXPECT_THAT(problemsOf(policy),
                ElementsAre("/features/KPF_General/Sentrel/bEnableSentrel: is no number: the daemon "
                            "reads 'yes' as 0"));
    general(policy)["Sentrel"]["bEnableSentrel"] = "1st";
    EXPECT_THAT(problemsOf(policy),
                ElementsAre("/features/KPF_General/Sentrel/bEnableSentrel: is no number: the daemon "
                            "reads '1st' as 1"));
}

TEST(APolicyCheck, FailsForEachKeyThatAPassNeeds) {
    const std::vector<json::json_pointer> needed{
        json::json_pointer(std::string(kContentPlace) + "bEnableCategorization"),
        json::json_pointer(std::string(kContentPlace) + "uiBitCount"),
        json::json_pointer(std::string(kContentPlace) + "szActionCodes"),
        json::json_pointer(std::string(kContentPlace) + "uiContentBitCodes"),
        json::json_pointer("/features/KPF_ContentFiltering/RatingActions/uiOverall"),
        json::json_pointer(std::string(kSitesPlace) + "uiSiteCount")};
    for (const json::json_pointer& place : needed) {
        json policy = wholePolicy();
        policy[place.parent_pointer()].erase(place.back());
        const std::vector<std::string> problems = problemsOf(policy);
        ASSERT_FALSE(problems.empty()) << place;
        EXPECT_TRUE(problems.front().starts_with("!" + place.to_string() + ": is missing")) << problems.front();
        EXPECT_FALSE(checked(policy).isWhole());
    }
}

TEST(APolicyCheck, SaysThatTheSitesAreNotReadWhenThePassBeforeThemFails) {
    json policy = wholePolicy();
    content(policy).erase("uiBitCount");
    EXPECT_THAT(effectsOf(policy),
                ElementsAre("protection on", "sites: as they are, since what comes before them fails"));
}

TEST(APolicyCheck, TakesACategorySwitchOfMinusOneForLeavingThemAlone) {
    json policy = wholePolicy();
    content(policy) = {{"bEnableCategorization", -1}};
    EXPECT_THAT(problemsOf(policy), IsEmpty());
    EXPECT_THAT(effectsOf(policy), Contains("categories: as they are"));
}

TEST(APolicyCheck, ComparesTheCountOfCategoriesWithActionsAndCodes) {
    json policy = wholePolicy();
    content(policy)["uiBitCount"] = 3;
    EXPECT_THAT(
        problemsOf(policy),
        ElementsAre("!" + std::string(kContentPlace) + "szActionCodes: has 2 actions for the 3 of uiBitCount",
                    "!" + std::string(kContentPlace) + "uiContentBitCodes: has 2 codes for the 3 of uiBitCount"));
    content(policy)["uiBitCount"] = 1;
    EXPECT_THAT(problemsOf(policy),
                ElementsAre(std::string(kContentPlace) +
                                "szActionCodes: has 2 actions, of which the first 1 are used: uiBitCount says so",
                            std::string(kContentPlace) +
                                "uiContentBitCodes: has 2 codes, of which the first 1 are used: uiBitCount says so"));
    content(policy)["uiBitCount"] = 0;
    EXPECT_THAT(problemsOf(policy),
                ElementsAre("!" + std::string(kContentPlace) + "uiBitCount: is 0, which the daemon does not take"));
    content(policy)["uiBitCount"] = 2147483647;
    EXPECT_FALSE(checked(policy).isWhole());
}

TEST(APolicyCheck, FailsWhenTheActionsOrACodeAreLongerThanTheirBuffer) {
    json policy = wholePolicy();
    content(policy)["szActionCodes"] = std::string(1024, '1');
    content(policy)["uiContentBitCodes"] = "gb," + std::string(1024, 'x');
    EXPECT_THAT(problemsOf(policy),
                ElementsAre("!" + std::string(kContentPlace) + "szActionCodes: is longer than 1023 bytes",
                            "!" + std::string(kContentPlace) +
                                "uiContentBitCodes: has a code that is longer than 1023 "
                                "bytes"));
}

TEST(APolicyCheck, ReadsThePackedRatingsWithTheirDefaults) {
    json policy = wholePolicy();
    policy["features"]["KPF_ContentFiltering"]["RatingActions"]["uiOverall"] = 0x24;
    const std::vector<std::string> effects = effectsOf(policy);
    EXPECT_THAT(effects, Contains("yellow sites: block"));
    EXPECT_THAT(effects, Contains("red sites: block"));
    EXPECT_THAT(effects, Contains("unrated sites: warn"));
    EXPECT_THAT(problemsOf(policy), ElementsAre("/features/KPF_ContentFiltering/RatingActions/uiOverall: has the bits "
                                                "000 for unrated sites, which is no single action: warn is taken"));
    policy["features"]["KPF_ContentFiltering"]["RatingActions"]["uiOverall"] = 0;
    EXPECT_THAT(effectsOf(policy), Contains("site ratings: as they are"));
}

TEST(APolicyCheck, ComparesTheCountOfSitesWithSitesAndActions) {
    json policy = wholePolicy();
    sites(policy)["uiSiteCount"] = 3;
    sites(policy)["Action2"] = 1;
    EXPECT_THAT(problemsOf(policy),
                ElementsAre(std::string(kSitesPlace) + "szSite2: is missing",
                            std::string(kSitesPlace) + "uiSiteCount: is 3, but there are 2 sites and 3 actions: the "
                                                       "actions behind a gap go to other sites"));
    sites(policy)["uiSiteCount"] = 1;
    EXPECT_THAT(problemsOf(policy), ElementsAre(std::string(kSitesPlace) + "szSite1: is not read: uiSiteCount is 1",
                                                std::string(kSitesPlace) + "Action1: is not read: uiSiteCount is 1",
                                                std::string(kSitesPlace) + "Action2: is not read: uiSiteCount is 1"));
}

TEST(APolicyCheck, TellsThatActionsMoveWhenASiteOrAnActionAloneIsMissing) {
    for (const char* key : {"szSite0", "Action0", "szSite1"}) {
        json policy = wholePolicy();
        sites(policy).erase(key);
        const std::string gap = checked(policy).gap;
        EXPECT_TRUE(gap.starts_with(kSitesPlace + std::string(key) + ": is missing, and ")) << gap;
        EXPECT_TRUE(gap.ends_with(" is there: from it on, sites and actions do not fit")) << gap;
        EXPECT_TRUE(checked(policy).isWhole()) << "the machine reports success all the same";
    }
}

TEST(APolicyCheck, IsNoMatterOfGapsInAPolicyThatLeavesTheListAlone) {
    json policy = wholePolicy();
    sites(policy).erase("szSite0");
    policy["sections"]["NODE_ST_1070UNIX"]["EnforcePolicy"] = 0;
    EXPECT_EQ(checked(policy).gap, "");
}

TEST(APolicyCheck, HasNoGapWhereSiteAndActionAreMissingTogether) {
    json policy = wholePolicy();
    EXPECT_EQ(checked(policy).gap, "");
    sites(policy).erase("szSite0");
    sites(policy).erase("Action0");
    EXPECT_EQ(checked(policy).gap, "");
    EXPECT_THAT(problemsOf(policy),
                Contains(std::string(kSitesPlace) + "uiSiteCount: is 2, but there are 1 sites and 1 actions"));
}

TEST(APolicyCheck, LeavesOutASiteThatIsTooLongAndKeepsTheOthersInPlace) {
    json policy = wholePolicy();
    sites(policy)["szSite0"] = std::string(1024, 'x');
    EXPECT_THAT(effectsOf(policy), Contains("1 site: 1 blocked, 0 allowed, block entries win"));
    EXPECT_THAT(problemsOf(policy),
                ElementsAre(std::string(kSitesPlace) + "szSite0: is longer than 1023 bytes, so it is left out"));
}

TEST(APolicyCheck, EndsSoonForACountThatLies) {
    json policy = wholePolicy();
    sites(policy)["uiSiteCount"] = 2147483647;
    const PolicyCheck check = checked(policy);
    EXPECT_LE(check.problems.size(), 202U);
    EXPECT_THAT(problemsOf(policy), Contains(std::string(kSitesPlace) +
                                             "szSite101: is missing, and so are 99898 more entries of the list"));
    EXPECT_TRUE(check.isWhole());
}

TEST(APolicyCheck, TellsWhoWinsWhenThePolicyDoesNot) {
    json policy = wholePolicy();
    sites(policy).erase("bPrecedenceOverProhibitLists");
    EXPECT_THAT(effectsOf(policy), Contains("2 sites: 1 blocked, 1 allowed, allow entries win"));
    EXPECT_THAT(problemsOf(policy), ElementsAre(std::string(kSitesPlace) +
                                                "bPrecedenceOverProhibitLists: is missing, so allow entries win"));
}

TEST(APolicyCheck, GuessesWhatANameIsMeantToBe) {
    json policy = wholePolicy();
    policy["features"]["KPF_Genaral"]["Sentrel"]["bEnableSentrel"] = 1;
    general(policy)["Sentral"]["bEnableSentrel"] = 1;
    general(policy)["Sentrel"]["bEnableSentral"] = 1;
    policy["sections"]["Sentrel"]["bEnableSentrel"] = 1;
    EXPECT_THAT(problemsOf(policy),
                ElementsAre("/sections/Sentrel/bEnableSentrel: is read in the feature KPF_General only",
                            "/features/KPF_Genaral: is no feature that is read; perhaps 'KPF_General' is meant",
                            "/features/KPF_General/Sentral: is no section that is read; perhaps 'Sentrel' is meant",
                            "/features/KPF_General/Sentrel/bEnableSentral: is no key that is read; perhaps "
                            "'bEnableSentrel' is meant"));
}

TEST(APolicyCheck, FindsSomeKeysInAnySectionOfTheirName) {
    json policy = wholePolicy();
    policy["sections"]["BlockAndAllowList"] = {{"szSite0", "http://first/"}};
    EXPECT_THAT(problemsOf(policy), IsEmpty());
    policy["sections"]["BlockAndAllowList"]["Action0"] = 9;
    EXPECT_THAT(problemsOf(policy), ElementsAre("/sections/BlockAndAllowList/Action0: is 9: 0 is allow, 1 block"));
}

TEST(APolicyCheck, SaysThatAPolicyDoesNothingThatSwitchesItselfOff) {
    for (const int value : {0, -5}) {
        json policy = wholePolicy();
        sites(policy).erase("uiSiteCount");
        policy["sections"]["NODE_ST_1070UNIX"]["EnforcePolicy"] = value;
        const PolicyCheck check = checked(policy);
        EXPECT_FALSE(check.isEnforced);
        EXPECT_TRUE(check.isWhole()) << "no pass runs that could fail";
        EXPECT_THAT(check.effects, IsEmpty());
        EXPECT_EQ(check.problems.front().place, "/sections/NODE_ST_1070UNIX/EnforcePolicy");
    }
}

TEST(APolicyReport, SaysWhyAPolicyIsRefused) {
    const CheckedPolicy policy = checkedPolicy(R"({"version": -1})", {});
    EXPECT_STREQ(policy.verdict(), "refused");
    EXPECT_EQ(policyText(policy, Palette()), "policy without a version\n"
                                             "refused  /version: is not an integer from 0 to 9223372036854775807\n"
                                             "It would be refused.\n");
    EXPECT_EQ(policyJson(policy)["verdict"], "refused");
}

TEST(APolicyReport, IsHarmlessOnATerminal) {
    json policy = wholePolicy();
    policy["id"] = "\x1b[31mred";
    policy["sections"]["a\x1b[0m\nb"]["k"] = 1;
    const std::string text = policyText(checkedPolicy(policy.dump(), {}), Palette());
    EXPECT_EQ(text.find('\x1b'), std::string::npos) << text;
    EXPECT_TRUE(text.starts_with("policy 4 (\\x1b[31mred)\n")) << text;
}

TEST(APolicyReport, ShowsWhatFailsBeforeWhatIsOdd) {
    json policy = wholePolicy();
    general(policy)["Sentrel"]["bEnableSentrel"] = 2;
    sites(policy).erase("uiSiteCount");
    const std::string text = problemsText(checkedPolicy(policy.dump(), {}), Palette());
    EXPECT_TRUE(text.starts_with("fails    " + std::string(kSitesPlace) + "uiSiteCount: is missing")) << text;
}

} // namespace
} // namespace Sentrel::ctl
