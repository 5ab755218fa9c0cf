// How the single values of a policy are read.
#include "policy/PolicyValues.h"

#include "policy/PolicyLimits.h"

#include <gtest/gtest.h>

namespace Sentrel::policy {
namespace {

void expectNumber(const std::wstring& text, int value, bool isWhole) {
    const PolicyNumber number = readNumber(text);
    EXPECT_EQ(number.value, value) << std::string(text.begin(), text.end());
    EXPECT_EQ(number.isWhole, isWhole) << std::string(text.begin(), text.end());
}

TEST(APolicyNumber, IsTheOneAtTheBeginningOfItsText) {
    expectNumber(L"0", 0, true);
    expectNumber(L"-1", -1, true);
    expectNumber(L"2147483647", 2147483647, true);
    expectNumber(L"7 sites", 7, false);
    expectNumber(L"", 0, false);
    expectNumber(L"on", 0, false);
    expectNumber(L"\u00e9", 0, false);
    expectNumber(L"12\u00e9", 12, false);
    EXPECT_FALSE(readNumber(L"2147483648").isWhole);
    EXPECT_FALSE(readNumber(L"99999999999999999999").isWhole);
}

TEST(APolicyNumber, IsLookedForInFiftyCharacters) {
    expectNumber(std::wstring(49, L'0') + L"1", 1, true);
    expectNumber(std::wstring(49, L'0') + L"12", 1, false);
    expectNumber(std::wstring(50, L' ') + L"7", 0, false);
}

TEST(APolicyText, IsCutAtItsBoundAndTellsWhatCameNext) {
    const std::wstring fits(kMaxTextCharacters, L'x');
    EXPECT_EQ(readText(fits).text, fits);
    EXPECT_FALSE(readText(fits).isCut());
    EXPECT_EQ(readText(fits + L"yz").text, fits);
    EXPECT_EQ(readText(fits + L"yz").cutOff, L'y');
}

TEST(ANarrowText, IsNoneBeyondWhatItsReadersHaveRoomFor) {
    EXPECT_EQ(narrowText(L""), "");
    EXPECT_EQ(narrowText(L"\u00e9"), "\xc3\xa9");
    EXPECT_EQ(narrowText(std::wstring(1023, L'x')), std::string(1023, 'x'));
    EXPECT_EQ(narrowText(std::wstring(1024, L'x')), std::nullopt);
    EXPECT_EQ(narrowText(std::wstring(511, L'\u00e9') + L"x")->size(), 1023U);
    EXPECT_EQ(narrowText(std::wstring(512, L'\u00e9')), std::nullopt) << "1,024 bytes";
}

TEST(APolicy, IsEnforcedUnlessItSaysOtherwise) {
    EXPECT_TRUE(isEnforced(std::nullopt));
    EXPECT_TRUE(isEnforced(1));
    EXPECT_FALSE(isEnforced(0));
    EXPECT_FALSE(isEnforced(-5));
}

TEST(TheUnverifiedAction, IsNotItsCode) {
    EXPECT_EQ(unverifiedAction(0), VisitAction::Block);
    EXPECT_EQ(unverifiedAction(1), VisitAction::Allow);
    EXPECT_EQ(unverifiedAction(2), VisitAction::Warn);
    EXPECT_EQ(unverifiedAction(7), VisitAction::Allow);
    EXPECT_EQ(unverifiedAction(-1), VisitAction::Allow);
}

TEST(ARating, TakesTheOneActionOfItsBitsAndOtherwiseItsDefault) {
    for (const RatingField& field : kRatingFields) {
        const auto actionOf = [&](int bits) { return field.actionOf(bits << static_cast<int>(field.shift)); };
        EXPECT_EQ(actionOf(1), VisitAction::Allow);
        EXPECT_EQ(actionOf(2), VisitAction::Warn);
        EXPECT_EQ(actionOf(4), VisitAction::Block);
        for (const int mixed : {0, 3, 5, 6, 7}) {
            EXPECT_EQ(actionOf(mixed), field.rating == Rating::Red ? VisitAction::Block : VisitAction::Warn) << mixed;
        }
    }
}

} // namespace
} // namespace Sentrel::policy
