// The book of the log store's minutes.
#include "apps/hvbd/MinuteBook.h"

#include <gtest/gtest.h>

using HVB::hub::MinuteBook;

namespace {

TEST(AMinuteBook, KnowsTheFullestMinuteAndOfSeveralTheEarliest) {
    MinuteBook book;
    EXPECT_TRUE(book.isEmpty());
    book.add(7, 100, 1, 0);
    book.add(5, 100, 1, 0);
    EXPECT_EQ(book.fullest(), 5);
    book.add(7, 1, 1, 0);
    EXPECT_EQ(book.fullest(), 7);
    EXPECT_EQ(book.totalBytes(), 201U);
    book.remove(7, 100, 1);
    EXPECT_EQ(book.fullest(), 5);
    book.remove(5, 100, 1);
    EXPECT_EQ(book.fullest(), 7);
    book.remove(7, 1, 1);
    EXPECT_TRUE(book.isEmpty());
    EXPECT_EQ(book.totalBytes(), 0U);
}

TEST(AMinuteBook, FindsAMergeWorthwhileWhenEnoughCameSinceTheLast) {
    MinuteBook book;
    book.add(5, 100, 16, 0);
    EXPECT_FALSE(book.isMergeWorthwhile(5)) << "records of no known kind";
    book.add(5, 100, 16, 16);
    EXPECT_TRUE(book.isMergeWorthwhile(5));
    book.noteMerged(5);
    book.add(5, 1, 4, 4);
    EXPECT_FALSE(book.isMergeWorthwhile(5)) << "4 of 36";
    book.add(5, 1, 1, 1);
    EXPECT_TRUE(book.isMergeWorthwhile(5)) << "5 of 37";
    EXPECT_FALSE(book.isMergeWorthwhile(6)) << "an empty minute";
}

TEST(AMinute, HasSixtySeconds) {
    EXPECT_EQ(MinuteBook::minuteOf(59'999'999), 0);
    EXPECT_EQ(MinuteBook::minuteOf(60'000'000), 1);
}

} // namespace
