// How the lists of a policy are read.
#include "policy/PolicyLists.h"

#include "policy/LeftOut.h"
#include "policy/PolicyLimits.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Sentrel::policy {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

/// A policy of plain names. Threads: the test's. Owner: the test.
class Values : public PolicySource {
public:
    explicit Values(std::map<std::string, std::wstring> values) : m_values(std::move(values)) {}

    std::optional<int> number(const PolicyKey& key, int index) const override {
        const auto found = m_values.find(nameOf(key, index));
        return found == m_values.end() ? std::nullopt : std::optional(readNumber(found->second).value);
    }
    std::optional<PolicyText> text(const PolicyKey& key, int index) const override {
        const auto found = m_values.find(nameOf(key, index));
        return found == m_values.end() ? std::nullopt : std::optional(readText(found->second));
    }

private:
    std::map<std::string, std::wstring> m_values;
};

std::vector<std::wstring> codesOf(const std::wstring& listed) {
    std::vector<std::wstring> codes;
    for (const TextEntry& code : readCategoryCodes(Values({{"uiContentBitCodes", listed}})).codes) {
        codes.push_back(code.text);
    }
    return codes;
}

std::set<std::string> blockedOf(const std::wstring& actions, const std::wstring& codes, int count) {
    const Values values({{"szActionCodes", actions}, {"uiContentBitCodes", codes}});
    return blockedCategories(readCategoryActions(values), readCategoryCodes(values), count);
}

TEST(ACodeList, LosesItsEmptyCodes) {
    EXPECT_THAT(codesOf(L"al,,ga,"), ElementsAre(L"al", L"ga"));
    EXPECT_THAT(codesOf(L",,,"), IsEmpty());
    EXPECT_THAT(codesOf(L""), IsEmpty());
    EXPECT_FALSE(readCategoryCodes(Values({})).isThere);
}

TEST(ACodeList, NeverHoldsACodeThatWasCut) {
    const std::wstring head = std::wstring(kMaxTextCharacters - 3, L',') + L"al,"; // fills it to the character
    EXPECT_THAT(codesOf(head), ElementsAre(L"al"));
    EXPECT_THAT(codesOf(head + L"ga"), ElementsAre(L"al"));
    const std::wstring code = std::wstring(kMaxTextCharacters - 2, L',') + L"al"; // what follows is in the code, or not
    EXPECT_THAT(codesOf(code + L",ga"), ElementsAre(L"al"));
    EXPECT_THAT(codesOf(code + L"x,ga"), IsEmpty());
    EXPECT_THAT(codesOf(std::wstring(kMaxTextCharacters + 1, L'x')), IsEmpty()) << "one code, without a comma";
}

TEST(TheCategories, AreCountedOnceAndWithoutTheBlanksAroundThem) {
    EXPECT_THAT(blockedOf(L"11", L"gb, gb", 2), ElementsAre("gb"));
    EXPECT_THAT(blockedOf(L"1021x", L"al,ga,\tne ,su,we", 5), ElementsAre("al", "ne", "su"));
    EXPECT_THAT(blockedOf(L"111", L"al,ga,ne", 2), ElementsAre("al", "ga"));
    EXPECT_THAT(blockedOf(L"1", L"al", -1), IsEmpty());
}

TEST(TheSites, AreReadByIndexEachFamilyByItself) {
    const Values values({{"szSite0", L" http://a/ "},
                         {"szSite2", L"http://a/"},
                         {"szSite3", L"  "},
                         {"Action0", L"0"},
                         {"Action1", L"1"},
                         {"Action2", L"0"}});
    const TextEntries sites = readTexts(values, keys::kSite, 4);
    const NumberEntries actions = readNumbers(values, keys::kSiteAction, 4);
    EXPECT_THAT(sites.missing, ElementsAre(1));
    EXPECT_THAT(actions.missing, ElementsAre(3));
    EXPECT_THAT(actions.indices, ElementsAre(0, 1, 2));
    EXPECT_THAT(storedSites(sites, actions), ElementsAre(Pair("http://a/", 1)))
        << "the later one, and none without a name";
}

TEST(ASiteThatIsTooLong, KeepsItsPlaceAndIsNotStored) {
    const Values values(
        {{"szSite0", std::wstring(1024, L'x')}, {"szSite1", L"http://b/"}, {"Action0", L"1"}, {"Action1", L"0"}});
    const TextEntries sites = readTexts(values, keys::kSite, 2);
    EXPECT_EQ(sites.found.size(), 2U);
    EXPECT_THAT(storedSites(sites, readNumbers(values, keys::kSiteAction, 2)), ElementsAre(Pair("http://b/", 0)));
}

TEST(TheRanges, AreStoredOnceAsTheyCameButForThoseOfVersion6) {
    const Values values({{"szAgumentIP_0", L"10.0.0.0/8"},
                         {"szAgumentIP_1", L"fe80::/10"},
                         {"szAgumentIP_2", L""},
                         {"szAgumentIP_3", L"10.0.0.0/8"},
                         {"szAgumentIP_4", L" 10.0.0.0/8"}});
    EXPECT_THAT(storedRanges(readTexts(values, keys::kRange, 5)), ElementsAre(" 10.0.0.0/8", "10.0.0.0/8"));
}

TEST(ACount, IsBoundedWhateverItSays) {
    EXPECT_EQ(boundedCount(-1), 0);
    EXPECT_EQ(boundedCount(7), 7);
    EXPECT_EQ(boundedCount(2147483647), kMaxPolicyEntries);
    EXPECT_EQ(readTexts(Values({}), keys::kSite, 2147483647).missing.size(), std::size_t{kMaxPolicyEntries});
}

std::vector<std::pair<std::string, LeftOutReason>> entriesOf(const LeftOut& leftOut) {
    std::vector<std::pair<std::string, LeftOutReason>> entries;
    for (const LeftOutEntry& each : leftOut.first) {
        entries.emplace_back(each.key, each.reason);
    }
    return entries;
}

TEST(ALeftOutEntry, IsOneThatGetsNoRow) {
    const Values values({{"uiAgumentIPCount", L"5"},
                         {"szAgumentIP_0", L"10.0.0.0/8"},
                         {"szAgumentIP_1", L"fe80::/10"},
                         {"szAgumentIP_2", L" \t"},
                         {"szAgumentIP_4", std::wstring(kMaxNarrowBytes + 1, L'1')},
                         {"szAgumentIP_5", L"10.1.0.0/16"},
                         {"uiSiteCount", L"2"},
                         {"szSite0", L"http://a.example/"},
                         {"szSite1", L"http://a.example/"}});
    const LeftOut leftOut = leftOutOf(values);
    EXPECT_EQ(leftOut.count, 5U) << "a site that is there twice is there";
    EXPECT_THAT(entriesOf(leftOut),
                ElementsAre(Pair("szAgumentIP_3", LeftOutReason::Missing),
                            Pair("szAgumentIP_1", LeftOutReason::Version6), Pair("szAgumentIP_2", LeftOutReason::Empty),
                            Pair("szAgumentIP_4", LeftOutReason::TooLong),
                            Pair("szAgumentIP_5", LeftOutReason::BeyondCount)));
}

TEST(ALeftOutEntry, IsCountedWithAllOthersAndNamedWithTheFirst) {
    const LeftOut leftOut = leftOutOf(Values({{"uiSiteCount", L"5000"}}));
    EXPECT_EQ(leftOut.count, 5000U);
    EXPECT_EQ(leftOut.first.size(), kMaxLeftOutTold);
    EXPECT_EQ(leftOut.first.front().key, "szSite0");
}

TEST(ALeftOutEntry, IsNoneOfAPolicyThatIsNotToBeEnforcedOrHasNoList) {
    EXPECT_EQ(leftOutOf(Values({})).count, 0U);
    EXPECT_EQ(leftOutOf(Values({{"uiSiteCount", L"5000"}, {"EnforcePolicy", L"0"}})).count, 0U);
}

} // namespace
} // namespace Sentrel::policy
