// What grants do to a list. Nothing here is a double.
#include "apps/hvbd/ListEdit.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using namespace HVB::hub;

const EntryList kBefore{{"first.example", 1}, {"second.example", 0}, {"first.example/a", 4}};

TEST(AGrantsEntry, GoesToTheEndOfTheList) {
    EntryList list = kBefore;
    EXPECT_TRUE(allowEntry(list, "new.example"));
    ASSERT_EQ(list.size(), 4U);
    EXPECT_EQ(list.back(), (EntryList::value_type{"new.example", 0}));
    EXPECT_FALSE(allowEntry(list, "new.example")) << "nothing is left to do";
}

TEST(AGrantsEntry, TakesThePlaceOfABlockEntryAndGivesItBack) {
    EntryList list = kBefore;
    const EntryStanding before = standingOf(list, "first.example/a");
    EXPECT_EQ(before, (EntryStanding{true, 4}));
    EXPECT_TRUE(allowEntry(list, "first.example/a"));
    EXPECT_EQ(list[2].second, 0);
    EXPECT_EQ(list[0].second, 1);
    EXPECT_TRUE(endGrants(list, std::vector<GrantEnd>{{1, "first.example/a", before}}));
    EXPECT_EQ(list, kBefore);
}

TEST(AGrantsEntry, StaysWhenItWasAllowedByHandBefore) {
    EntryList list = kBefore;
    EXPECT_FALSE(allowEntry(list, "second.example"));
    EXPECT_FALSE(endGrants(list, std::vector<GrantEnd>{{1, "second.example", {true, 0}}}));
    EXPECT_EQ(list, kBefore);
}

TEST(AGrantsEntry, ThatSomebodyTookOutOrBlockedMeanwhileIsLeftSo) {
    EntryList list = kBefore;
    EXPECT_FALSE(endGrants(list, std::vector<GrantEnd>{{1, "gone.example", {}}, {2, "first.example", {}}}));
    EXPECT_EQ(list, kBefore);
}

TEST(AGrantsEntry, EndsTogetherWithOthers) {
    EntryList list = kBefore;
    allowEntry(list, "a.example");
    allowEntry(list, "b.example");
    EXPECT_TRUE(endGrants(list, std::vector<GrantEnd>{{1, "a.example", {}}, {2, "b.example", {}}}));
    EXPECT_EQ(list, kBefore);
}

TEST(AGrantsEntry, ThatIsThereTwiceCountsAsAllowedWhenOneIs) {
    EntryList list{{"a.example", 1}, {"a.example", 0}};
    EXPECT_TRUE(standingOf(list, "a.example").isAllowed());
    list = {{"a.example", 1}, {"a.example", 1}};
    EXPECT_TRUE(allowEntry(list, "a.example"));
    EXPECT_EQ(list, (EntryList{{"a.example", 0}, {"a.example", 0}}));
}

} // namespace
