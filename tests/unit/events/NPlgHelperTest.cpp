// The rules for URLs and the small questions about the machine. Not real: who sits at the console.
#include "events/NPlgHelper.h"
#include "base/UserDBPath.h"
#include "tests/unit/events/ConsoleUserDouble.h"
#include "tests/unit/events/EventsRoot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <ctime>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using NPlgHelper::RateActionMap;
using testing::ElementsAre;
using testing::Pair;
using testing_support::ConsoleUserDouble;

constexpr int kAllow = 1;
constexpr int kWarn = 2;
constexpr int kBlock = 3;

/// A page that nothing is known about but its rating, with the reputation service in reach.
STEventData page(int rating) {
    STEventData event{};
    event.urlRating = rating;
    event.isRpxReachable = 1;
    event.action = -1;
    return event;
}

int actionOf(STEventData event, RateActionMap& actions) {
    NPlgHelper::GetURLAction(event, actions);
    return event.action;
}

int actionOf(STEventData event, RateActionMap&& actions) {
    return actionOf(event, actions);
}

RateActionMap allBlock() {
    return {{"RED", "BLOCK"},          {"YELLOW", "BLOCK"},   {"UNRATED", "BLOCK"},       {"UNVERIFIED", "BLOCK"},
            {"MINIMAL_RISK", "BLOCK"}, {"PHISHING", "BLOCK"}, {"RPXUNREACHABLE", "BLOCK"}};
}

TEST(ARating, HasItsNameOnTheRiskScale) {
    const std::vector<std::pair<int, std::string>> names{
        {-2147483647 - 1, "MINIMAL_RISK"},
        {-101, "MINIMAL_RISK"},
        {-100, "UNRATED"},
        {-99, "MINIMAL_RISK"},
        {0, "MINIMAL_RISK"},
        {14, "MINIMAL_RISK"},
        {15, "UNVERIFIED"},
        {16, "UNRATED"},
        {20, "UNRATED"},
        {29, "UNRATED"},
        {30, "YELLOW"},
        {49, "YELLOW"},
        {50, "RED"},
        {2147483647, "RED"},
    };
    for (const auto& [rating, name] : names) {
        EXPECT_EQ(NPlgHelper::GetRatingStr(rating), name) << rating;
    }
}

TEST(AnActionCode, HasItsNameAndAnUnknownOneAllows) {
    EXPECT_EQ(NPlgHelper::GetActionString(1), "ALLOW");
    EXPECT_EQ(NPlgHelper::GetActionString(2), "WARN");
    EXPECT_EQ(NPlgHelper::GetActionString(3), "BLOCK");
    for (const int unknown : {-1, 0, 4, 100}) {
        EXPECT_EQ(NPlgHelper::GetActionString(unknown), "ALLOW") << unknown;
    }
}

TEST(AListAction, HasItsNameAndAnUnknownOneBlocks) {
    EXPECT_EQ(NPlgHelper::GetAllowBlockActionString(0), "ALLOW");
    EXPECT_EQ(NPlgHelper::GetAllowBlockActionString(1), "BLOCK");
    for (const int unknown : {-1, 2, 3, 100}) {
        EXPECT_EQ(NPlgHelper::GetAllowBlockActionString(unknown), "BLOCK") << unknown;
    }
}

TEST(APageOnTheAllowBlockList, IsAllowedByAnAllowingEntryWhateverElseHolds) {
    STEventData event = page(99);
    event.inAllowBlockList = 1;
    event.blockedInAllowBlockList = 0;
    event.isPhishing = 1;
    event.blockedInCategory = 1;
    event.isRpxReachable = 0;
    EXPECT_EQ(actionOf(event, allBlock()), kAllow);
    event.blockedInAllowBlockList = 2;
    EXPECT_EQ(actionOf(event, allBlock()), kAllow);
}

TEST(APageOnTheAllowBlockList, IsBlockedByABlockingEntryWhateverItsRating) {
    STEventData event = page(0);
    event.inAllowBlockList = 1;
    event.blockedInAllowBlockList = 1;
    EXPECT_EQ(actionOf(event, {}), kBlock);
}

TEST(APageOnTheAllowBlockList, ThatIsPhishingIsAllowedAndTheMapGainsNoKey) {
    STEventData event = page(99);
    event.inAllowBlockList = 1;
    event.isPhishing = 1;
    event.isRpxReachable = 0;
    RateActionMap actions;
    EXPECT_EQ(actionOf(event, actions), kAllow);
    EXPECT_TRUE(actions.empty());
}

TEST(APage, WithAnotherListValueThanOneIsNotOnTheList) {
    STEventData event = page(99);
    event.inAllowBlockList = 2;
    event.blockedInAllowBlockList = 1;
    EXPECT_EQ(actionOf(event, {}), kAllow);
}

TEST(APage, IsBlockedWhenTheReputationServiceIsOutOfReachAndThatBlocks) {
    STEventData event = page(0);
    event.isRpxReachable = 0;
    RateActionMap actions{{"RPXUNREACHABLE", "BLOCK"}};
    EXPECT_EQ(actionOf(event, actions), kBlock);
    EXPECT_THAT(actions, ElementsAre(Pair("RPXUNREACHABLE", "BLOCK"))) << "the rating was not looked up";
}

TEST(APage, FallsThroughWhenTheReputationServiceIsOutOfReachAndThatDoesNotBlock) {
    STEventData event = page(60);
    event.isRpxReachable = 0;
    for (const char* value : {"WARN", "ALLOW", "", "block", "BLOCK "}) {
        EXPECT_EQ(actionOf(event, {{"RPXUNREACHABLE", value}}), kAllow) << value;
        EXPECT_EQ(actionOf(event, {{"RPXUNREACHABLE", value}, {"RED", "WARN"}}), kWarn) << value;
    }
}

TEST(APage, LeavesTheReputationServicesKeyUnreadWhenItIsInReach) {
    RateActionMap actions;
    EXPECT_EQ(actionOf(page(60), actions), kAllow);
    EXPECT_THAT(actions, ElementsAre(Pair("RED", "")));
    STEventData event = page(60);
    event.isRpxReachable = 2;
    EXPECT_EQ(actionOf(event, {{"RPXUNREACHABLE", "BLOCK"}}), kAllow);
}

TEST(APage, InABlockedCategoryIsBlockedBeforePhishingAndRatingAreLookedUp) {
    STEventData event = page(60);
    event.blockedInCategory = 1;
    event.isPhishing = 1;
    RateActionMap actions;
    EXPECT_EQ(actionOf(event, actions), kBlock);
    EXPECT_TRUE(actions.empty());
    event.blockedInCategory = 2;
    EXPECT_EQ(actionOf(event, {}), kAllow);
}

TEST(APage, ThatIsPhishingIsBlockedWhenPhishingBlocks) {
    STEventData event = page(0);
    event.isPhishing = 1;
    EXPECT_EQ(actionOf(event, {{"PHISHING", "BLOCK"}}), kBlock);
}

TEST(APage, ThatIsPhishingFallsThroughWhenPhishingDoesNotBlock) {
    STEventData event = page(60);
    event.isPhishing = 1;
    for (const char* value : {"WARN", "ALLOW", "", "block"}) {
        EXPECT_EQ(actionOf(event, {{"PHISHING", value}}), kAllow) << value;
        EXPECT_EQ(actionOf(event, {{"PHISHING", value}, {"RED", "WARN"}}), kWarn) << value;
    }
    event.isPhishing = 2;
    EXPECT_EQ(actionOf(event, {{"PHISHING", "BLOCK"}}), kAllow);
}

TEST(APage, GetsTheActionOfItsRating) {
    for (const auto& [rating, name] : std::vector<std::pair<int, std::string>>{{-100, "UNRATED"},
                                                                               {14, "MINIMAL_RISK"},
                                                                               {15, "UNVERIFIED"},
                                                                               {29, "UNRATED"},
                                                                               {30, "YELLOW"},
                                                                               {50, "RED"}}) {
        EXPECT_EQ(actionOf(page(rating), {{name, "BLOCK"}}), kBlock) << name;
        EXPECT_EQ(actionOf(page(rating), {{name, "WARN"}}), kWarn) << name;
        EXPECT_EQ(actionOf(page(rating), {{name, "ALLOW"}}), kAllow) << name;
        EXPECT_EQ(actionOf(page(rating), {{name, ""}}), kAllow) << name;
        EXPECT_EQ(actionOf(page(rating), {{name, "warn"}}), kAllow) << name;
    }
}

TEST(APage, OfMinimalRiskIsAllowedByTheMapOfTheBrowserScript) {
    RateActionMap actions = allBlock();
    actions.erase("MINIMAL_RISK");
    EXPECT_EQ(actionOf(page(14), actions), kAllow);
}

TEST(APage, RatedRedIsAllowedByAnEmptyMapWhichGainsTheKeysThatWereRead) {
    STEventData event = page(60);
    event.isRpxReachable = 0;
    RateActionMap actions;
    EXPECT_EQ(actionOf(event, actions), kAllow);
    EXPECT_THAT(actions, ElementsAre(Pair("RED", ""), Pair("RPXUNREACHABLE", "")));
}

TEST(ARateActionMap, IsWrittenForTheBrowserScriptInItsFixedOrder) {
    RateActionMap actions{{"RED", "BLOCK"},       {"YELLOW", "WARN"},    {"UNRATED", "ALLOW"},
                          {"UNVERIFIED", "WARN"}, {"PHISHING", "BLOCK"}, {"RPXUNREACHABLE", "ALLOW"}};
    EXPECT_EQ(NPlgHelper::SerializeRate_Action(actions),
              "({\"RED\":\"BLOCK\",\"YELLOW\":\"WARN\",\"UNRATED\":\"ALLOW\",\"UNVERIFIED\":\"WARN\","
              "\"PHISHING\":\"BLOCK\",\"RPXUNREACHABLE\":\"ALLOW\"})");
}

TEST(ARateActionMap, ThatIsEmptyIsWrittenWithSixEmptyValuesAndGainsTheSixKeys) {
    RateActionMap actions;
    EXPECT_EQ(NPlgHelper::SerializeRate_Action(actions),
              "({\"RED\":\"\",\"YELLOW\":\"\",\"UNRATED\":\"\",\"UNVERIFIED\":\"\",\"PHISHING\":\"\","
              "\"RPXUNREACHABLE\":\"\"})");
    EXPECT_THAT(actions, ElementsAre(Pair("PHISHING", ""), Pair("RED", ""), Pair("RPXUNREACHABLE", ""),
                                     Pair("UNRATED", ""), Pair("UNVERIFIED", ""), Pair("YELLOW", "")));
}

TEST(ARateActionMap, IsWrittenWithoutEscapesAndWithoutMinimalRisk) {
    RateActionMap actions{{"RED", "\"}\\"}, {"MINIMAL_RISK", "BLOCK"}};
    EXPECT_EQ(NPlgHelper::SerializeRate_Action(actions),
              "({\"RED\":\"\"}\\\",\"YELLOW\":\"\",\"UNRATED\":\"\",\"UNVERIFIED\":\"\",\"PHISHING\":\"\","
              "\"RPXUNREACHABLE\":\"\"})");
}

TEST(TheAllowBlockOrder, KeepsEntriesAsTheyWereInsertedWithAllDuplicates) {
    std::multimap<std::string, int, NPlgHelper::classcomp> list;
    for (const auto& [url, action] : std::vector<std::pair<std::string, int>>{{"b", 1}, {"a", 2}, {"b", 3}}) {
        list.emplace(url, action);
    }
    EXPECT_THAT(list, ElementsAre(Pair("b", 1), Pair("a", 2), Pair("b", 3)));
}

TEST(TheConsoleUser, IsTheNameThatTheSystemGives) {
    ConsoleUserDouble& console = ConsoleUserDouble::instance();
    console.user = "mara";
    EXPECT_EQ(NPlgHelper::GetCurrentUser(), "mara");
    EXPECT_FALSE(console.gaveStore);
    EXPECT_TRUE(console.gavePlacesForIds);
    EXPECT_EQ(console.bufferSize, 256);
    EXPECT_EQ(console.encoding, 0x08000100U);
    EXPECT_EQ(console.namesHeld, 0);
}

TEST(TheConsoleUser, IsEmptyWhenNobodySitsThere) {
    ConsoleUserDouble::instance().user.reset();
    EXPECT_EQ(NPlgHelper::GetCurrentUser(), "");
    EXPECT_EQ(ConsoleUserDouble::instance().namesHeld, 0);
}

TEST(TheConsoleUser, IsWholeUpTo255BytesAndEmptyBeyond) {
    ConsoleUserDouble::instance().user = std::string(255, 'u');
    EXPECT_EQ(NPlgHelper::GetCurrentUser(), std::string(255, 'u'));
    ConsoleUserDouble::instance().user = std::string(256, 'u');
    EXPECT_EQ(NPlgHelper::GetCurrentUser(), "");
    EXPECT_EQ(ConsoleUserDouble::instance().namesHeld, 0);
}

TEST(TheConsoleUser, IsEmptyWhenTheQuestionThrows) {
    ConsoleUserDouble::instance().before = [] { throw std::runtime_error("no console"); };
    EXPECT_EQ(NPlgHelper::GetCurrentUser(), "");
    ConsoleUserDouble::instance().before = nullptr;
}

TEST(TheConsoleUser, IsEmptyAndItsNameReleasedWhenTheConversionThrows) {
    ConsoleUserDouble& console = ConsoleUserDouble::instance();
    console.user = "mara";
    console.beforeConverted = [] { throw std::runtime_error("no conversion"); };
    EXPECT_EQ(NPlgHelper::GetCurrentUser(), "");
    EXPECT_EQ(console.namesHeld, 0);
    console.beforeConverted = nullptr;
}

TEST(TheSettingsPath, IsCopiedWithItsTerminatorWhateverTheSizeSays) {
    const std::string expected = testing_support::privateRoot() + "/Users/Shared/.orvanta/product.db";
    for (const unsigned long size : {0UL, 1UL, 1024UL}) {
        std::array<char, 1024> buffer;
        buffer.fill('x');
        EXPECT_TRUE(NPlgHelper::GetUserDBPath(buffer.data(), size));
        EXPECT_EQ(std::string(buffer.data()), expected);
        EXPECT_EQ(buffer[expected.size()], '\0');
        EXPECT_EQ(buffer[expected.size() + 1], 'x') << "nothing behind the terminator is written";
    }
}

TEST(TheSafariFlag, IsFalseAtStartAndKeepsWhatItIsGiven) {
    EXPECT_FALSE(NPlgHelper::IsSafari());
    NPlgHelper::SetIsSafari(true);
    EXPECT_TRUE(NPlgHelper::IsSafari());
    NPlgHelper::SetIsSafari(false);
    EXPECT_FALSE(NPlgHelper::IsSafari());
}

TEST(StartingTheApp, DoesNothingWithAnyArgument) {
    EXPECT_NO_THROW(NPlgHelper::StartVexorinApp(nullptr));
    EXPECT_NO_THROW(NPlgHelper::StartVexorinApp("anything"));
}

/// The letters that the seed of one second gives.
std::string lettersOf(std::time_t second) {
    srandom(static_cast<unsigned>(second));
    const auto value = static_cast<unsigned long>(random());
    std::string letters;
    for (unsigned long divisor = 1; letters.size() < 4; divisor *= 16) {
        letters += static_cast<char>('P' - value / divisor % 16);
    }
    return letters;
}

TEST(AToken, IsFourLettersOfTheSecondItWasMadeIn) {
    const std::time_t before = std::time(nullptr);
    const std::string text = NPlgHelper::CToken().text();
    const std::time_t after = std::time(nullptr);
    ASSERT_EQ(text.size(), 4U);
    EXPECT_TRUE(std::all_of(text.begin(), text.end(), [](char c) { return c >= 'A' && c <= 'P'; })) << text;
    std::vector<std::string> possible;
    for (std::time_t second = before; second <= after; ++second) {
        possible.push_back(lettersOf(second));
    }
    EXPECT_THAT(possible, testing::Contains(text));
}

TEST(AToken, OpensAWhitelistRequestThatCarriesIt) {
    const NPlgHelper::CToken token;
    const std::string request =
        std::string("about:blank?command=whitelist&token=") + token.text() + "&whitelisturl=u&redirectURL=u";
    const char* begin = nullptr;
    const char* end = nullptr;
    ASSERT_TRUE(NPlgHelper::GetWhitelistURLPosition(request.c_str(), &begin, &end, token.text()));
    EXPECT_EQ(std::string(begin, end), "u");
}

} // namespace
