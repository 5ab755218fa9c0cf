// Where the check finds a policy's values.
#include "apps/sentrelctl/policy/PolicyPlaces.h"

#include <gtest/gtest.h>

namespace Sentrel::ctl {
namespace {

namespace keys = policy::keys;

TEST(AKeysPlace, IsWhereItIsFoundOrWhereItBelongs) {
    HVBEnterprise::SectionsHandle policy;
    EXPECT_EQ(placeOf(policy, keys::kEnforce), "/sections/NODE_ST_1070UNIX/EnforcePolicy");
    EXPECT_EQ(placeOf(policy, keys::kSite, 3), "/features/KPF_BlockAndAllowList/BlockAndAllowList/szSite3");
    policy.insertForFeature(L"Other/one", L"BlockAndAllowList", L"szSite3", L"x");
    EXPECT_EQ(placeOf(policy, keys::kSite, 3), "/features/Other~1one/BlockAndAllowList/szSite3");
    EXPECT_EQ(HVBEnterprise::agent::policyValue(policy, keys::kSite, 3), L"x");
    policy.insert(L"BlockAndAllowList", L"szSite3", L"y");
    EXPECT_EQ(placeOf(policy, keys::kSite, 3), "/sections/BlockAndAllowList/szSite3");
    EXPECT_EQ(HVBEnterprise::agent::policyValue(policy, keys::kSite, 3), L"y");
    policy.insertForFeature(L"Other/one", L"BlockAndAllowList", L"uiSiteCount", L"1");
    EXPECT_EQ(HVBEnterprise::agent::policyValue(policy, keys::kSiteCount), std::nullopt)
        << "this one is read in its feature alone";
}

} // namespace
} // namespace Sentrel::ctl
