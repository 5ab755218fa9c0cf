// What is news about a module's health. The clock is the test's.
#include "apps/hvbd/HealthBoard.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <string>

using namespace HVB::hub;

namespace {

class AHealthBoard : public testing::Test {
protected:
    /// The line that a check's outcome makes; empty for no news.
    std::string note(Health health, const std::string& detail = "") {
        const auto news = board.note(7, health, detail, now += std::chrono::seconds(60));
        priority = news ? news->priority : -1;
        return news ? news->line : "";
    }

    HealthBoard board;
    HealthBoard::Time now = HealthBoard::Time(std::chrono::seconds(1'700'000'000));
    int priority = -1;
};

TEST_F(AHealthBoard, TellsOfAModuleWhenItIsFirstSeen) {
    EXPECT_EQ(note(Health::Well), "module 7 is well");
    EXPECT_EQ(priority, LOG_INFO);
}

TEST_F(AHealthBoard, TellsOnlyOfChanges) {
    note(Health::Well);
    EXPECT_EQ(note(Health::Well), "");
    EXPECT_EQ(note(Health::Unwell), "module 7 says that it is not well");
    EXPECT_EQ(priority, LOG_WARNING);
    EXPECT_EQ(note(Health::Unwell), "");
    EXPECT_EQ(note(Health::Well), "module 7 is well again");
}

TEST_F(AHealthBoard, TellsWhyAModuleCountsAsSilentAndNotAgainForAnotherReason) {
    EXPECT_EQ(note(Health::Silent, "timed out"), "module 7 does not answer its health check: timed out");
    EXPECT_EQ(note(Health::Silent, "refused"), "");
}

TEST_F(AHealthBoard, TellsOnceOfAModuleThatLeftTheBusAndOfItsReturn) {
    note(Health::Well);
    const auto gone = board.notePresent({3, 8}, now);
    ASSERT_EQ(gone.size(), 1U);
    EXPECT_EQ(gone.front().line, "module 7 is gone from the bus");
    EXPECT_EQ(gone.front().priority, LOG_WARNING);
    EXPECT_TRUE(board.notePresent({3, 8}, now).empty());
    EXPECT_EQ(note(Health::Well), "module 7 is back and is well");
}

TEST_F(AHealthBoard, SaysNothingOfModulesThatStayAndOfThoseNeverSeen) {
    note(Health::Well);
    EXPECT_TRUE(board.notePresent({7, 9}, now).empty());
    EXPECT_EQ(board.entries().size(), 1U);
}

TEST_F(AHealthBoard, KeepsTheTimeOfTheLastChange) {
    note(Health::Well);
    const auto since = now;
    note(Health::Well);
    EXPECT_EQ(board.entries().at(7).since, since);
    note(Health::Silent);
    EXPECT_EQ(board.entries().at(7).since, now);
}

TEST(AModulesBusName, GivesItsIdOnlyInItsOneForm) {
    EXPECT_EQ(moduleIdOf("com.orvanta.hvb1.Module7"), 7);
    EXPECT_EQ(moduleIdOf("com.orvanta.hvb1.Module123"), 123);
    for (const char* other : {"com.orvanta.hvb1.Module07", "com.orvanta.hvb1.Module", "com.orvanta.hvb1.Module7x",
                              "com.orvanta.hvb1.Hub", ":1.7", "com.orvanta.hvb1.Module99999999999", ""}) {
        EXPECT_EQ(moduleIdOf(other), std::nullopt) << other;
    }
}

TEST(AnIsoTime, IsInUtcWithSeconds) {
    EXPECT_EQ(isoTime(HealthBoard::Time(std::chrono::seconds(1'700'000'000))), "2023-11-14T22:13:20Z");
}

} // namespace
