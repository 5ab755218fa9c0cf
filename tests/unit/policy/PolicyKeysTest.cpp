// The table of a policy's keys.
#include "policy/PolicyKeys.h"

#include <gtest/gtest.h>

#include <set>
#include <utility>

namespace Sentrel::policy {
namespace {

TEST(ThePolicyKeys, AreEachNamedOnce) {
    std::set<std::pair<std::string_view, std::string_view>> names;
    for (const PolicyKey& key : keys::kAll) {
        EXPECT_FALSE(key.section.empty());
        EXPECT_TRUE(names.emplace(key.section, key.name).second) << key.name;
    }
}

TEST(AnIndexedKey, IsNamedWithItsIndexInPlainDecimal) {
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

} // namespace
} // namespace Sentrel::policy
