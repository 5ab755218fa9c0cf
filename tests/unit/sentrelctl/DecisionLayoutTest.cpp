// A decision on a page, as people and as programs read it. The rules that decide are real.
#include "apps/sentrelctl/decisions/DecisionLayout.h"

#include <gtest/gtest.h>

namespace Sentrel::ctl {
namespace {

using browsing::PageRules;
using browsing::SiteStanding;
using settings::SettingsSnapshot;

const std::optional<settings::MachinePolicy> kUnmanaged = settings::MachinePolicy();

std::string shown(const SettingsSnapshot& snapshot, const std::string& url, const SiteStanding& standing = {}) {
    const PageRules rules(snapshot);
    const browsing::PageDecision decision = rules.decide(url, standing);
    return decisionText({rules, standing, decision, kUnmanaged}, Palette());
}

std::string line(const std::string& text, const std::string& stage) {
    const std::size_t begin = text.find(stage + " ");
    return begin == std::string::npos ? "" : text.substr(begin - 2, text.find('\n', begin) - begin + 2);
}

TEST(ADecision, IsToldStepByStepUpToTheOneThatDecides) {
    EXPECT_EQ(shown({}, "https://Red.example", {.rating = 60}), "block  https://red.example/\n"
                                                                "  address        one of the web\n"
                                                                "  protection     on\n"
                                                                "  list           none of 0 entries names the page\n"
                                                                "  private range  the host is in none of 0\n"
                                                                "  reachability   ratings can be had\n"
                                                                "  category       none is known of the site\n"
                                                                "  phishing       no\n"
                                                                "> rating         60 is RED, and red-sites is block\n"
                                                                "  report         at once\n"
                                                                "  policy         this machine is not managed\n");
}

TEST(ADecision, NamesTheEntryThatDecidesAndTheOneThatItWinsOver) {
    SettingsSnapshot snapshot;
    snapshot.allowBlock = {{"*.site.example", 1}, {"www.site.example", 0}, {"no address", 1}};
    EXPECT_EQ(
        line(shown(snapshot, "https://www.site.example/"), "list"),
        "> list           the entry block *.site.example; it wins over allow www.site.example, as allow-over-block "
        "is off; 1 can name no page, being no address");
    snapshot.numbers["ALLOW_OVER_Block"] = 1;
    EXPECT_EQ(line(shown(snapshot, "https://www.site.example/"), "list"),
              "> list           the entry allow www.site.example; it wins over block *.site.example, as "
              "allow-over-block is on; 1 can name no page, being no address");
}

TEST(ADecision, NamesTheSettingThatDecides) {
    SettingsSnapshot snapshot;
    snapshot.privateRanges = {"10.0.0.0/8"};
    snapshot.categories = {{"Games", 3}};
    EXPECT_EQ(line(shown(snapshot, "http://10.0.0.1/"), "private range"), "> private range  the host is in 10.0.0.0/8");
    const std::string page = "https://site.example/";
    EXPECT_EQ(line(shown(snapshot, page, {.categories = {{"News"}, {"Games"}}}), "category"),
              "> category       Games is blocked");
    EXPECT_EQ(line(shown(snapshot, page, {.categories = {{"News"}}}), "category"),
              "  category       News: not blocked");
    EXPECT_EQ(line(shown(snapshot, page, {.isPhishing = true}), "phishing"),
              "> phishing       yes, and block-phishing is on");
    EXPECT_EQ(line(shown(snapshot, page, {.isReachable = false}), "reachability"),
              "  reachability   nobody can rate the site, and block-unreachable is off");
    snapshot.numbers = {{"UNCAT_Block", 1}, {"GenPolicyRPXUnReachableAction", 1}};
    EXPECT_EQ(line(shown(snapshot, page), "category"),
              "> category       the site is in none, and block-uncategorised is on");
    EXPECT_EQ(line(shown(snapshot, page, {.isReachable = false}), "reachability"),
              "> reachability   nobody can rate the site, and block-unreachable is on");
    snapshot.numbers = {{"CAT_Enabled", 0}};
    EXPECT_EQ(line(shown(snapshot, page), "category"), "  category       category-blocking is off");
    snapshot.numbers = {{"Enabled", 0}};
    EXPECT_EQ(line(shown(snapshot, page), "protection"), "> protection     off");
    EXPECT_EQ(line(shown(snapshot, "about:blank"), "address"), "> address        its scheme is neither http nor https");
}

TEST(ADecision, SaysWhereASafeSearchGoes) {
    SettingsSnapshot snapshot;
    snapshot.numbers = {{"SSOn", 1}};
    EXPECT_EQ(line(shown(snapshot, "https://duckduckgo.com/?q=a"), "safe search"),
              "  safe search    goes to https://duckduckgo.com/?q=a&kp=1");
    EXPECT_EQ(line(shown(snapshot, "https://site.example/?q=a"), "safe search"), "");
}

TEST(ADecision, ShowsNothingThatSteersATerminal) {
    SettingsSnapshot snapshot;
    snapshot.allowBlock = {{"*/\x1b[31m", 1}};
    const std::string text = shown(snapshot, "https://site.example/\x1b[31m", {.categories = {{"\x1b[31m"}}});
    EXPECT_EQ(text.find('\x1b'), std::string::npos) << text;
    EXPECT_NE(text.find("the entry block */\\x1b[31m"), std::string::npos) << text;
}

TEST(ADecision, HasAllForProgramsToo) {
    SettingsSnapshot snapshot;
    snapshot.allowBlock = {{"site.example", 1}};
    const PageRules rules(snapshot);
    const SiteStanding standing{.rating = 40};
    const browsing::PageDecision decision = rules.decide("https://site.example/", standing);
    EXPECT_EQ(
        jsonText(decisionJson({rules, standing, decision, kUnmanaged}), JsonMode::Short),
        R"({"url":"https://site.example/","action":"block","decided_by":"list","setting":null,)"
        R"("entry":{"url":"site.example","action":"block","code":1},"overruled":null,"private_range":null,)"
        R"("category":null,"rating":40,"rating_name":"YELLOW","rated_by":null,"report":"at once","safe_search":null,)"
        R"("unreadable_entries":0,)"
        R"("policy":{"managed":false,"ruled":false,"text":"this machine is not managed"},)"
        R"("steps":[{"stage":"address","decided":false,"text":"one of the web"},)"
        R"({"stage":"protection","decided":false,"text":"on"},)"
        R"({"stage":"list","decided":true,"text":"the entry block site.example"}]})"
        "\n");
}

std::string rulingText(std::string_view setting, const std::optional<settings::MachinePolicy>& policy) {
    return rulingOf(setting, policy).text;
}

TEST(APolicyRuling, SaysWhichKeySetsASettingOrLeavesIt) {
    const settings::MachinePolicy policy{true, 7, "", {"GenPolicyBlockPhishingAction"}};
    EXPECT_EQ(rulingText("GenPolicyBlockPhishingAction", policy),
              "the policy in force, version 7, sets it (bPhishingBlock)");
    EXPECT_EQ(rulingOf("GenPolicyBlockPhishingAction", policy).isRuled, true);
    EXPECT_EQ(rulingText("RedSiteAction", policy), "the policy in force, version 7, leaves it (uiOverall)");
    EXPECT_EQ(rulingOf("RedSiteAction", policy).isRuled, false);
    EXPECT_EQ(rulingText("", policy), "no policy says anything of this");
}

TEST(APolicyRuling, SaysWhyThereIsNone) {
    EXPECT_EQ(rulingText("Enabled", settings::MachinePolicy()), "this machine is not managed");
    const settings::MachinePolicy waiting{true, std::nullopt, "", {}};
    EXPECT_EQ(rulingText("Enabled", waiting), "this machine is managed, and no policy has come yet");
    EXPECT_EQ(rulingOf("Enabled", waiting).isRuled, false);
}

TEST(APolicyRuling, OfAPolicyThatCannotBeSeenIsNotTakenForNone) {
    EXPECT_EQ(rulingOf("Enabled", std::nullopt).isRuled, std::nullopt);
    const settings::MachinePolicy spoilt{true, std::nullopt, "line 1: no JSON", {}};
    EXPECT_EQ(rulingOf("Enabled", spoilt).isRuled, std::nullopt);
    EXPECT_EQ(rulingText("Enabled", spoilt), "not known: the saved policy cannot be read: line 1: no JSON");
}

} // namespace
} // namespace Sentrel::ctl
