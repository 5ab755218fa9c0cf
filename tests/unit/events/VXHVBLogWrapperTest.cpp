// Log lines and log records for the hub. Real: carriers, archives, trace. Not real: the hub, which is recorded.
#include "events/VXHVBLogWrapper.h"

#include "daemon/Trace.h"
#include "hub/Exceptions.h"
#include "tests/support/FlowLines.h"
#include "tests/support/RecordingBroker.h"
#include "tests/unit/events/EventsRoot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <clocale>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Sentrel::VXHVBLogWrapper;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::expectLineAt;
using testing_support::kAllLevels;
using testing_support::linesOf;
using testing_support::Recording;

class ALogWrapper : public testing::Test {
protected:
    ALogWrapper() {
        std::setlocale(LC_CTYPE, "C.UTF-8");
        hub.logs.clear();
        hub.lines.clear();
        report.m_reportName = L"a name";
        report.m_time = 11;
        detail.m_name = L"a detail";
        detail.info.emplace(L"key", L"value");
        detail.m_time = 12;
    }
    ~ALogWrapper() override { Recording::instance().before = nullptr; }

    template <class Exception>
    static void failWith(Exception exception) {
        Recording::instance().before = [exception](const std::string& operation) {
            if (operation != "getInstance") {
                throw exception;
            }
        };
    }
    static std::string toHub() {
        return "getInstance " + testing_support::privateRoot() + "/usr/local/Orvanta/hvb/var/hvbdsocket64";
    }

    /// What the hub was asked for in this test.
    std::vector<std::string> calls() {
        const auto all = hub.calls();
        return {all.begin() + static_cast<std::ptrdiff_t>(earlierCalls), all.end()};
    }

    Recording& hub = Recording::instance();
    const std::size_t earlierCalls = hub.calls().size();
    ReportData report;
    DetailReportData detail;
    const HVB::HVBException hubIsAway{-111, "no hub"};
};

void logLine() {
    VXHVBLogWrapper::sendLogMessage(HVB::LOG_TYPE_RECENT_EVENT, HVB::LOG_LEVEL_WARNING, "line %d of %s", 3, "four");
}

TEST_F(ALogWrapper, SendsAFormattedLineForItsModule) {
    logLine();
    EXPECT_THAT(calls(), ElementsAre("HVB_LOG_MSG 7 Sentrel 7 1"));
    EXPECT_THAT(hub.lines, ElementsAre(L"line 3 of four"));
}

TEST_F(ALogWrapper, PassesATextOnAsItIs) {
    VXHVBLogWrapper::sendLogMessage(HVB::LOG_TYPE_HISTORY_EVENT, HVB::LOG_LEVEL_DEBUG, "%s", "Caf\xC3\xA9\t100%s\n");
    EXPECT_THAT(calls(), ElementsAre("HVB_LOG_MSG 7 Sentrel 3 3"));
    EXPECT_THAT(hub.lines, ElementsAre(L"Caf\u00E9\t100%s\n"));
}

TEST_F(ALogWrapper, MakesALineThatIsNoTextPrintable) {
    VXHVBLogWrapper::sendLogMessage(HVB::LOG_TYPE_HISTORY_EVENT, HVB::LOG_LEVEL_DEBUG, "Caf%s.", "\xE9");
    EXPECT_THAT(hub.lines, ElementsAre(L"Caf\\xe9."));
}

TEST_F(ALogWrapper, SendsALineOfAnyLength) {
    const std::string text(3000, 'x');
    VXHVBLogWrapper::sendLogMessage(HVB::LOG_TYPE_HISTORY_EVENT, HVB::LOG_LEVEL_DEBUG, "%s", text.c_str());
    EXPECT_THAT(hub.lines, ElementsAre(std::wstring(3000, L'x')));
}

TEST_F(ALogWrapper, TracesALineThatTheHubDidNotTake) {
    failWith(hubIsAway);
    EXPECT_NO_THROW(logLine());
    expectLineAt(loggerFlowvalue, 1, "Recieved HVB exception while logging message - line 3 of four", logLine);
}

TEST_F(ALogWrapper, TracesALineOnAnyOtherException) {
    failWith(std::runtime_error("other"));
    EXPECT_NO_THROW(logLine());
    expectLineAt(loggerFlowvalue, 1, "Recieved exception while logging message - line 3 of four", logLine);
}

TEST_F(ALogWrapper, TracesTheFormatOfALineThatCannotBeFormatted) {
    const auto log = [] {
        VXHVBLogWrapper::sendLogMessage(HVB::LOG_TYPE_HISTORY_EVENT, HVB::LOG_LEVEL_DEBUG, "wide %ls", L"\xD800");
    };
    EXPECT_NO_THROW(log());
    EXPECT_THAT(calls(), IsEmpty());
    expectLineAt(loggerFlowvalue, 1, "Recieved exception while logging message - wide %ls", log);
}

TEST_F(ALogWrapper, WritesNoTraceLineForALineThatWasSent) {
    EXPECT_THAT(linesOf(loggerFlowvalue, kAllLevels, logLine), IsEmpty());
}

TEST_F(ALogWrapper, SendsARecentEventWithTheDetailedRecordAlone) {
    VXHVBLogWrapper::sendRecentEvents(detail);
    EXPECT_THAT(calls(), ElementsAre(toHub(), "sendLog"));
    ASSERT_EQ(hub.logs.size(), 1U);
    EXPECT_EQ(hub.logs[0].sourceId, 7);
    EXPECT_EQ(hub.logs[0].logType, 7);
    EXPECT_EQ(hub.logs[0].text, detail.toWstring());
    EXPECT_EQ(hub.logs[0].detailText, L"");
    EXPECT_EQ(hub.logs[0].count, 1);
}

TEST_F(ALogWrapper, SendsAHistoryEventWithBothRecords) {
    VXHVBLogWrapper::sendHistoryEvents(report, detail);
    EXPECT_THAT(calls(), ElementsAre(toHub(), "sendLog"));
    ASSERT_EQ(hub.logs.size(), 1U);
    EXPECT_EQ(hub.logs[0].sourceId, 7);
    EXPECT_EQ(hub.logs[0].logType, 3);
    EXPECT_EQ(hub.logs[0].text, report.toWstring());
    EXPECT_EQ(hub.logs[0].detailText, detail.toWstring());
    EXPECT_EQ(hub.logs[0].count, 1);
}

TEST_F(ALogWrapper, OnlyTracesABrowserEvent) {
    const auto send = [this] { VXHVBLogWrapper::sendMgsEvents(report, detail); };
    EXPECT_THAT(linesOf(loggerFlowvalue, kAllLevels, send), ElementsAre("HVBLogWrapper::sendMgsEvent"));
    expectLineAt(loggerFlowvalue, 3, "HVBLogWrapper::sendMgsEvent", send);
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(ALogWrapper, TracesARecentEventAtLevelThree) {
    const auto send = [this] { VXHVBLogWrapper::sendRecentEvents(detail); };
    EXPECT_THAT(linesOf(loggerFlowvalue, kAllLevels, send), ElementsAre("HVBLogWrapper::sendRecentEvents"));
    expectLineAt(loggerFlowvalue, 3, "HVBLogWrapper::sendRecentEvents", send);
}

TEST_F(ALogWrapper, TracesAHistoryEventAtLevelThree) {
    const auto send = [this] { VXHVBLogWrapper::sendHistoryEvents(report, detail); };
    EXPECT_THAT(linesOf(loggerFlowvalue, kAllLevels, send), ElementsAre("HVBLogWrapper::sendHistoryEvents"));
    expectLineAt(loggerFlowvalue, 3, "HVBLogWrapper::sendHistoryEvents", send);
}

TEST_F(ALogWrapper, TracesARecentEventThatTheHubDidNotTake) {
    const auto send = [this] { VXHVBLogWrapper::sendRecentEvents(detail); };
    failWith(hubIsAway);
    EXPECT_NO_THROW(send());
    expectLineAt(loggerFlowvalue, 1,
                 "HVBLogWrapper::sendRecentEvents Received HVB exception while logging recent Event message", send);
    failWith(std::runtime_error("other"));
    EXPECT_NO_THROW(send());
    expectLineAt(loggerFlowvalue, 1,
                 "HVBLogWrapper::sendRecentEvents Received generic exception while logging recent Event message", send);
}

TEST_F(ALogWrapper, TracesAHistoryEventThatTheHubDidNotTakeAsARecentOne) {
    const auto send = [this] { VXHVBLogWrapper::sendHistoryEvents(report, detail); };
    failWith(hubIsAway);
    EXPECT_NO_THROW(send());
    expectLineAt(loggerFlowvalue, 1,
                 "HVBLogWrapper::sendHistoryEvents Received HVB exception while logging recent Event message", send);
    failWith(1);
    EXPECT_NO_THROW(send());
    expectLineAt(loggerFlowvalue, 1,
                 "HVBLogWrapper::sendHistoryEvents Received generic exception while logging recent Event message",
                 send);
}

} // namespace
