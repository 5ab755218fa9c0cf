// Which events are reported, the ids of their parts, and what the reporter traces.
#include "daemon/Trace.h"
#include "hub/Exceptions.h"
#include "tests/support/FlowLines.h"
#include "tests/unit/events/EventReporterFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

using namespace testing_support;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* kInvoked = "EventReporter::sendBlockEventToHVB - Invoked ";
constexpr const char* kException = "EventReporter::sendBlockEventToHVB - Exception ";

// What is reported at all.

TEST_F(AnEventReporter, DropsAWarningThatNobodyAnswered) {
    STEventData warning = redPage();
    warning.action = 2;
    EXPECT_FALSE(reporter.ShouldSendEvent(warning));
    EXPECT_FALSE(reports(warning));
}

TEST_F(AnEventReporter, ReportsAWarningWithTheUsersAnswerAsItsAction) {
    STEventData warning = redPage();
    warning.action = 2;
    warning.userAction = 5;
    EXPECT_TRUE(reporter.ShouldSendEvent(warning));
    EXPECT_EQ(information(warning, L"ActionID"), L"5");
}

TEST_F(AnEventReporter, ReportsAWarningThatWasAnsweredWithANegativeNumber) {
    STEventData warning = redPage();
    warning.action = 2;
    warning.userAction = -3;
    EXPECT_TRUE(reporter.ShouldSendEvent(warning));
    EXPECT_EQ(information(warning, L"ActionID"), L"-3");
}

TEST_F(AnEventReporter, ReportsEveryOtherActionWithoutAnAnswer) {
    for (const int action : {-1, 0, 1, 3, 4}) {
        STEventData event = redPage();
        event.action = action;
        EXPECT_TRUE(reporter.ShouldSendEvent(event)) << action;
        EXPECT_TRUE(reports(event)) << action;
    }
}

TEST_F(AnEventReporter, ReportsAUrlOnlyWithAPath) {
    EXPECT_FALSE(reports(withUrl("http://shop.example")));
    EXPECT_TRUE(reports(withUrl("http://shop.example/")));
    EXPECT_FALSE(reports(withUrl("ftp://shop.example")));
}

TEST_F(AnEventReporter, TakesTheSecondSlashOfALongerSchemeForAPath) {
    EXPECT_TRUE(reporter.isValidUrl("https://shop.example")); // it stands at index 7
    EXPECT_TRUE(reports(withUrl("https://shop.example")));
}

TEST_F(AnEventReporter, DropsAUrlOfFewerThanEightCharacters) {
    for (const char* url : {"", "/", "///////", "a/b/c/d", "s://h/p"}) {
        EXPECT_FALSE(reporter.isValidUrl(url)) << url;
        EXPECT_FALSE(reports(withUrl(url))) << url;
    }
    EXPECT_TRUE(reporter.isValidUrl("1234567/"));
    EXPECT_FALSE(reporter.isValidUrl("123456/8"));
}

TEST_F(AnEventReporter, ReportsTheBlockPagesOwnReportsWithoutAPath) {
    EXPECT_TRUE(reporter.isValidUrl("reports.blockedSiteDSSError"));
    EXPECT_TRUE(reports(withUrl("http://reports.blockedSiteDSSError")));
    EXPECT_TRUE(reports(withUrl("x.reports.blockedSiteDSSError.y")));
    EXPECT_FALSE(reports(withUrl("http://reports.blockedsitedsserror")));
}

TEST_F(AnEventReporter, DropsAnEventWithoutATraceLine) {
    STEventData warning = redPage();
    warning.action = 2;
    for (const STEventData& dropped : {withUrl(""), withUrl("http://shop.example"), warning}) {
        EXPECT_THAT(linesOf(ipcFlowvalue, kAllLevels, [&] { send(dropped); }),
                    ElementsAre("EventReporter::sendSTEvent - Invoked ", kInvoked));
    }
    EXPECT_THAT(calls(), IsEmpty());
}

// The id tables.

TEST_F(AnEventReporter, ColorsARating) {
    const std::vector<std::pair<int, int>> colors{
        {-2147483647 - 1, 1},
        {-101, 1},
        {-100, 6},
        {-99, 1},
        {0, 1},
        {14, 1},
        {15, 6},
        {16, 4},
        {29, 4},
        {30, 2},
        {49, 2},
        {50, 3},
        {2147483647, 3},
    };
    for (const auto& [rating, color] : colors) {
        EXPECT_EQ(reporter.GetRatingColorID(rating), color) << rating;
    }
}

TEST_F(AnEventReporter, NumbersTheList) {
    STEventData event{};
    for (const int notOne : {-1, 0, 2}) {
        event.inAllowBlockList = notOne;
        event.blockedInAllowBlockList = 1;
        EXPECT_EQ(reporter.GetListID(event), 1) << notOne;
        event.inAllowBlockList = 1;
        event.blockedInAllowBlockList = notOne;
        EXPECT_EQ(reporter.GetListID(event), 2) << notOne;
    }
    event.blockedInAllowBlockList = 1;
    EXPECT_EQ(reporter.GetListID(event), 3);
}

TEST_F(AnEventReporter, NumbersTheFirstReasonThatHolds) {
    STEventData event{};
    EXPECT_EQ(reporter.GetReasonInfoID(event), 1);
    event.blockedInCategory = 1;
    EXPECT_EQ(reporter.GetReasonInfoID(event), 5);
    event.isPhishing = 1;
    EXPECT_EQ(reporter.GetReasonInfoID(event), 3);
    event.inAllowBlockList = 1;
    EXPECT_EQ(reporter.GetReasonInfoID(event), 2);
    event.inAllowBlockList = event.isPhishing = event.blockedInCategory = 2;
    EXPECT_EQ(reporter.GetReasonInfoID(event), 1);
}

TEST_F(AnEventReporter, NumbersTheAction) {
    const auto idOf = [this](int action, int userAction) {
        STEventData event{};
        event.action = action;
        event.userAction = userAction;
        return reporter.GetActionInfoID(event);
    };
    EXPECT_EQ(idOf(1, 9), 1);
    EXPECT_EQ(idOf(2, 0), 2);
    EXPECT_EQ(idOf(2, 9), 9);
    EXPECT_EQ(idOf(2, -1), -1);
    for (const int other : {-1, 0, 3, 4}) {
        EXPECT_EQ(idOf(other, 9), 4) << other;
    }
}

TEST_F(AnEventReporter, NamesTheAction) {
    EXPECT_EQ(reporter.GetActionString(1), "allowed");
    EXPECT_EQ(reporter.GetActionString(2), "IDS_THREAT_ACTION_WARN");
    EXPECT_EQ(reporter.GetActionString(3), "blocked");
    for (const int other : {-1, 0, 4}) {
        EXPECT_EQ(reporter.GetActionString(other), "") << other;
    }
}

// Trace and failure.

TEST_F(AnEventReporter, TracesAReportedEventStepByStep) {
    STEventData event = redPage();
    event.blockedInCategory = 1;
    event.blockedCategoryId = 137;
    EXPECT_THAT(linesOf(ipcFlowvalue, kAllLevels, [&] { send(event); }),
                ElementsAre("EventReporter::sendSTEvent - Invoked ", kInvoked,
                            "EventReporter::sendBlockEventToHVB - Action - 3",
                            "EventReporter::sendBlockEventToHVB - URL - http://shop.example/pay?x=1 ", " Length - 27 ",
                            "", "getHostIp  - Invoked ",
                            "EventReporter::sendBlockEventToHVB - isBlocked_OnCategory - 1 ",
                            " Blocked Category ID - 137"));
    EXPECT_THAT(linesOf(loggerFlowvalue, kAllLevels, [&] { send(event); }), ElementsAre("HVBLogWrapper::sendMgsEvent"));
}

TEST_F(AnEventReporter, TracesAnEventAtLevelTwoAndNothingButTheLookUpBelow) {
    STEventData event = redPage();
    event.blockedInCategory = 1;
    for (const char* line :
         {"EventReporter::sendSTEvent - Invoked ", kInvoked, "EventReporter::sendBlockEventToHVB - Action - 3",
          "EventReporter::sendBlockEventToHVB - URL - http://shop.example/pay?x=1 ",
          "EventReporter::sendBlockEventToHVB - isBlocked_OnCategory - 1 "}) {
        expectLineAt(ipcFlowvalue, 2, line, [&] { send(event); });
    }
    EXPECT_THAT(linesOf(ipcFlowvalue, 1, [&] { send(event); }), ElementsAre("getHostIp  - Invoked "));
}

TEST_F(AnEventReporter, KeepsTheUrlsTraceLineWholeWhenTheUrlIsNoText) {
    const STEventData event = withUrl("http://h/\xFF\n");
    const auto lines = linesOf(ipcFlowvalue, 2, [&] { send(event); });
    EXPECT_THAT(lines, testing::Contains("EventReporter::sendBlockEventToHVB - URL - http://h/\\xff\\x0a "));
    EXPECT_THAT(lines, testing::Contains(" Length - 11 "));
}

TEST_F(AnEventReporter, LosesTheEventWithOneLineWhenTheHubIsAway) {
    Recording::instance().before = [](const std::string& operation) {
        if (operation == "sendLog") {
            throw HVB::HVBException(-111, "no hub");
        }
    };
    EXPECT_NO_THROW(EXPECT_FALSE(reports(redPage())));
    expectLineAt(ipcFlowvalue, 1, kException, [this] { send(redPage()); });
    EXPECT_THAT(linesOf(loggerFlowvalue, kAllLevels, [this] { send(redPage()); }), IsEmpty());
    Recording::instance().before = nullptr;
    EXPECT_EQ(sentFor(redPage()).size(), 1U) << "nothing was queued, and the next event goes out";
}

TEST_F(AnEventReporter, LosesTheEventWithOneLineOnAnyOtherException) {
    Recording::instance().before = [](const std::string&) { throw 1; };
    EXPECT_NO_THROW(EXPECT_FALSE(reports(redPage())));
    EXPECT_THAT(linesOf(ipcFlowvalue, 1, [this] { send(redPage()); }),
                ElementsAre("getHostIp  - Invoked ", kException));
}

TEST_F(AnEventReporter, LeavesTheRecordAsItWas) {
    STEventData event = redPage();
    const STEventData before = event;
    reporter.sendSTEvent(event);
    EXPECT_EQ(std::memcmp(&event, &before, sizeof event), 0);
}

// The singleton.

TEST_F(AnEventReporter, IsOneUntilItIsReleasedAndThenAnother) {
    EXPECT_EQ(EventReporter::getInstance(), &reporter);
    EventReporter::releaseInstance();
    EventReporter::releaseInstance();
    ASSERT_NE(EventReporter::getInstance(), nullptr);
    STEventData event = redPage();
    Recording::instance().logs.clear();
    EventReporter::getInstance()->sendSTEvent(event);
    EXPECT_EQ(Recording::instance().logs.size(), 1U);
}

TEST_F(AnEventReporter, TracesItsReleaseOnTheManagementFlowAtLevelOne) {
    EXPECT_THAT(
        linesOf(mgsFlowvalue, 1, [] { EventReporter::releaseInstance(); }),
        ElementsAre("EventReporter::releaseInstance - Invoked ", "EventReporter::releaseInstance - Completed "));
    EXPECT_THAT(linesOf(mgsFlowvalue, 0, [] { EventReporter::releaseInstance(); }), IsEmpty());
}

} // namespace
