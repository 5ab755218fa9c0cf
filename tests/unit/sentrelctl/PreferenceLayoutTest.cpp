// The preferences as text and as JSON, and what tells two snapshots apart.
#include "apps/sentrelctl/preferences/PreferenceLayout.h"
#include "apps/sentrelctl/terminal/Json.h"

#include <gtest/gtest.h>

namespace Sentrel::ctl {
namespace {

Snapshot sample() {
    Snapshot snapshot;
    snapshot.values.m_redSiteAction = 9;
    snapshot.values.m_categoryBlockDetails = {{"Gambling", 1}, {"\x1b[2J", 1}};
    snapshot.list = {{"http://a/", 0}, {"\xff", 2}};
    return snapshot;
}

std::string textOf(const std::vector<Change>& changes) {
    std::string text;
    for (const Change& change : changes) {
        text += change.text;
    }
    return text;
}

TEST(ASnapshot, IsATableOfNamesAndWords) {
    EXPECT_EQ(snapshotText(sample(), Palette()), "protection         on\n"
                                                 "safe-search        off\n"
                                                 "red-sites          9\n"
                                                 "yellow-sites       warn\n"
                                                 "unrated-sites      allow\n"
                                                 "unverified-sites   allow\n"
                                                 "category-blocking  off\n"
                                                 "allow-over-block   off\n"
                                                 "list               2 entries: 1 allow, 1 block\n"
                                                 "categories         2 categories\n");
}

TEST(ASnapshot, HoldsBothListsInJson) {
    EXPECT_EQ(jsonText(snapshotJson(sample()), JsonMode::Short),
              R"({"protection":true,"safe_search":false,"red_sites":"9","yellow_sites":"warn","unrated_sites":"allow",)"
              R"("unverified_sites":"allow","category_blocking":false,"allow_over_block":false,)"
              R"("list":[{"url":"http://a/","action":"allow","code":0},{"url":"\\xff","action":"block","code":2}],)"
              R"("categories":["\u001b[2J","Gambling"]})"
              "\n");
}

TEST(TwoSnapshots, ThatAreEqualHaveNoChange) {
    EXPECT_TRUE(changesBetween(sample(), sample()).empty());
}

TEST(TwoSnapshots, ThatDifferInOrderAloneHaveNoChange) {
    Snapshot other = sample();
    std::swap(other.list[0], other.list[1]);
    EXPECT_TRUE(changesBetween(sample(), other).empty());
}

TEST(TwoSnapshots, AreToldApartByEveryPreference) {
    Snapshot after;
    after.values.m_bEnable = false;
    after.values.m_bSafeSearch = true;
    after.values.m_redSiteAction = 1;
    after.values.m_yellowSiteAction = 1;
    after.values.m_unratedSiteAction = 2;
    after.values.m_unverifiedAction = 3;
    after.values.m_bCategoryBlocking = true;
    after.values.m_bAllowOverBlock = true;
    EXPECT_EQ(textOf(changesBetween(Snapshot(), after)), "  protection         on -> off\n"
                                                         "  safe-search        off -> on\n"
                                                         "  red-sites          block -> allow\n"
                                                         "  yellow-sites       warn -> allow\n"
                                                         "  unrated-sites      allow -> warn\n"
                                                         "  unverified-sites   allow -> block\n"
                                                         "  category-blocking  off -> on\n"
                                                         "  allow-over-block   off -> on\n");
    EXPECT_EQ(jsonText(changesBetween(Snapshot(), after)[2].json, JsonMode::Short),
              R"({"name":"red_sites","before":"block","after":"allow"})"
              "\n");
}

TEST(TwoSnapshots, AreToldApartByTheEntriesOfTheirLists) {
    Snapshot after = sample();
    after.list = {{"http://a/", 1}, {"\xff", 2}};
    after.values.m_categoryBlockDetails = {{"Gambling", 1}, {"News", 1}};
    const std::vector<Change> changes = changesBetween(sample(), after);
    EXPECT_EQ(textOf(changes), "  list\n    - allow http://a/\n    + block http://a/\n"
                               "  categories\n    - \\x1b[2J\n    + News\n");
    EXPECT_EQ(jsonText(changes[0].json, JsonMode::Short),
              R"({"name":"list","removed":[{"url":"http://a/","action":"allow","code":0}],)"
              R"("added":[{"url":"http://a/","action":"block","code":1}]})"
              "\n");
}

TEST(TwoSnapshots, DoNotBuryTheReaderUnderAListThatWasReplaced) {
    Snapshot after;
    for (int i = 0; i < 1000; ++i) {
        after.list.push_back({"http://" + std::to_string(i) + "/", 1});
    }
    const std::string text = textOf(changesBetween(Snapshot(), after));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 22);
    EXPECT_TRUE(text.ends_with("    + … and 980 more\n")) << text;
    Json added = changesBetween(Snapshot(), after)[0].json["added"];
    EXPECT_EQ(std::get<Json::Array>(added.value()).size(), 1000U) << "a program is given all";
}

} // namespace
} // namespace Sentrel::ctl
