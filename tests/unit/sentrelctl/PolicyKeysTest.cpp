// The table of a policy's keys, and how their values are read.
#include "apps/sentrelctl/policy/PolicyKeys.h"

#include <gtest/gtest.h>
#include <set>
#include <utility>

namespace Sentrel::ctl {
namespace {

void expectNumber(std::string_view text, int value, bool isWhole) {
    const PolicyNumber number = readPolicyNumber(text);
    EXPECT_EQ(number.value, value) << text;
    EXPECT_EQ(number.isWhole, isWhole) << text;
}

TEST(APolicyNumber, IsReadAsTheDaemonReadsIt) {
    expectNumber("0", 0, true);
    expectNumber("-1", -1, true);
    expectNumber("2147483647", 2147483647, true);
    expectNumber("7 sites", 7, false);
    expectNumber("", 0, false);
    expectNumber("on", 0, false);
    expectNumber("\xc3\xa9", 0, false);
    EXPECT_FALSE(readPolicyNumber("2147483648").isWhole);
    EXPECT_FALSE(readPolicyNumber("99999999999999999999").isWhole);
    EXPECT_FALSE(readPolicyNumber(std::string(49, '0') + "12").isWhole) << "only fifty bytes are looked at";
}

TEST(ThePolicyKeys, AreEachNamedOnce) {
    std::set<std::pair<std::string_view, std::string_view>> names;
    for (const PolicyKey& key : keys::kAll) {
        EXPECT_FALSE(key.section.empty());
        EXPECT_TRUE(names.emplace(key.section, key.name).second) << key.name;
    }
}

TEST(AnIndexedKey, IsNamedAsTheDaemonWritesIt) {
    EXPECT_EQ(nameOf(keys::kSite, 12), "szSite12");
    EXPECT_EQ(nameOf(keys::kSiteCount, 12), "uiSiteCount");
    EXPECT_EQ(indexIn(keys::kSite, "szSite12"), 12);
    EXPECT_EQ(indexIn(keys::kSite, "szSite0"), 0);
    for (const char* const name :
         {"szSite", "szSite01", "szSite+1", "szSite-1", "szSite1x", "Action1", "szSite 1", "szSite99999999999"}) {
        EXPECT_EQ(indexIn(keys::kSite, name), std::nullopt) << name;
    }
    EXPECT_EQ(indexIn(keys::kSiteCount, "uiSiteCount1"), std::nullopt);
}

TEST(AKeysPlace, IsWhereItIsFoundOrWhereItBelongs) {
    HVBEnterprise::SectionsHandle policy;
    EXPECT_EQ(placeOf(policy, keys::kEnforce), "/sections/NODE_ST_1070UNIX/EnforcePolicy");
    EXPECT_EQ(placeOf(policy, keys::kSite, 3), "/features/KPF_BlockAndAllowList/BlockAndAllowList/szSite3");
    policy.insertForFeature(L"Other/one", L"BlockAndAllowList", L"szSite3", L"x");
    EXPECT_EQ(placeOf(policy, keys::kSite, 3), "/features/Other~1one/BlockAndAllowList/szSite3");
    EXPECT_EQ(policyValue(policy, keys::kSite, 3), "x");
    policy.insert(L"BlockAndAllowList", L"szSite3", L"y");
    EXPECT_EQ(placeOf(policy, keys::kSite, 3), "/sections/BlockAndAllowList/szSite3");
    EXPECT_EQ(policyValue(policy, keys::kSite, 3), "y");
    policy.insertForFeature(L"Other/one", L"BlockAndAllowList", L"uiSiteCount", L"1");
    EXPECT_EQ(policyValue(policy, keys::kSiteCount), std::nullopt) << "this one is read in its feature alone";
}

} // namespace
} // namespace Sentrel::ctl
