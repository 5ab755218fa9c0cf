// Which pages an entry names, by the table that says it, and which entry decides.
#include "browser/decision/SiteList.h"
#include "tests/unit/browsing/DecisionVectors.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace Sentrel::browsing {
namespace {

using Entries = std::vector<settings::ListEntry>;

constexpr std::int32_t kAllowEntry = 0;
constexpr std::int32_t kBlockEntry = 1;

WebUrl page(const std::string& text) {
    return std::get<WebUrl>(parseWebUrl(text));
}

TEST(ASiteList, NamesThePagesThatTheTableSays) {
    std::size_t checked = 0;
    for (const auto& row : decisionVectors("entries.json", "entries")) {
        const std::string entry = row.at("entry");
        const SiteList list(Entries{{entry, kBlockEntry}}, false);
        for (const std::string url : row.at("fits")) {
            EXPECT_EQ(list.find(page(url)), 0U) << entry << " and " << url;
            ++checked;
        }
        for (const std::string url : row.at("not")) {
            EXPECT_EQ(list.find(page(url)), SiteList::kNone) << entry << " and " << url;
            ++checked;
        }
    }
    EXPECT_GT(checked, 80U);
}

TEST(ASiteList, SaysWhichEntriesAreNoAddress) {
    Entries entries;
    for (const std::string text : decisionVectors("entries.json", "unreadable")) {
        entries.push_back({text, kBlockEntry});
    }
    entries.push_back({"site.example", kBlockEntry});
    const SiteList list(entries, false);
    EXPECT_EQ(list.unreadable().size(), entries.size() - 1);
    EXPECT_EQ(list.find(page("https://site.example/")), entries.size() - 1);
}

TEST(ASiteList, DecidesByTheKindThatTakesPrecedenceAndNotByTheLongerEntry) {
    const Entries entries{{"*.site.example", kBlockEntry}, {"www.site.example/a", kAllowEntry}};
    std::size_t overruled = 0;
    EXPECT_EQ(SiteList(entries, false).find(page("https://www.site.example/a"), &overruled), 0U);
    EXPECT_EQ(overruled, 1U);
    EXPECT_EQ(SiteList(entries, true).find(page("https://www.site.example/a"), &overruled), 1U);
    EXPECT_EQ(overruled, 0U);
    EXPECT_EQ(SiteList(entries, true).find(page("https://www.site.example/b"), &overruled), 0U);
    EXPECT_EQ(overruled, SiteList::kNone);
}

TEST(ASiteList, DecidesByTheFirstOfOneKind) {
    const Entries entries{{"*.example", kBlockEntry}, {"site.example/a/b", kBlockEntry}, {"site.example", kBlockEntry}};
    EXPECT_EQ(SiteList(entries, false).find(page("https://site.example/a/b")), 0U);
    EXPECT_EQ(SiteList({entries.rbegin(), entries.rend()}, false).find(page("https://site.example/a/b")), 0U);
}

TEST(ASiteList, TakesEveryActionButZeroForABlock) {
    const Entries entries{{"a.example", -1}, {"a.example", 0}, {"b.example", 7}};
    EXPECT_EQ(SiteList(entries, false).find(page("https://a.example/")), 0U);
    EXPECT_EQ(SiteList(entries, true).find(page("https://a.example/")), 1U);
    EXPECT_EQ(SiteList(entries, true).find(page("https://b.example/")), 2U);
}

TEST(ASiteList, FindsEachOfManyEntriesOfOneHost) {
    Entries entries;
    constexpr int many = 5000;
    for (int number = 0; number < many; ++number) {
        entries.push_back({fmt::format("site.example/{}/page?id={}", number % 7, number), kBlockEntry});
    }
    const SiteList list(entries, false);
    for (int number = 0; number < many; ++number) {
        const auto place = static_cast<std::size_t>(number);
        const std::string url = fmt::format("https://site.example/{}/page?id={}&x", number % 7, number);
        ASSERT_EQ(list.find(page(url)), place) << url;
    }
    EXPECT_EQ(list.find(page("https://site.example/1/page?id=0")), SiteList::kNone);
}

} // namespace
} // namespace Sentrel::browsing
