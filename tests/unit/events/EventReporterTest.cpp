// One browser decision becomes one log record. Real: records, carriers, archives, URL rules, trace. Not real: the hub
// (recorded), the machine's name and address, who sits at the console.
#include "events/EventReporter.h"

#include "daemon/Trace.h"
#include "events/ReportRecords.h"
#include "hub/Exceptions.h"
#include "tests/support/FlowLines.h"
#include "tests/support/RecordingBroker.h"
#include "tests/unit/events/ConsoleUserDouble.h"
#include "tests/unit/events/EventsRoot.h"
#include "tests/unit/events/SystemDouble.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::ConsoleUserDouble;
using testing_support::expectLineAt;
using testing_support::kAllLevels;
using testing_support::linesOf;
using testing_support::Recording;
using testing_support::SentLog;
using testing_support::SystemDouble;

constexpr const char* kInvoked = "EventReporter::sendBlockEventToHVB - Invoked ";
constexpr const char* kException = "EventReporter::sendBlockEventToHVB - Exception ";

template <std::size_t Size>
void put(char (&field)[Size], std::string_view text) {
    ASSERT_LE(text.size(), Size);
    std::memset(field, 0, Size);
    std::memcpy(field, text.data(), text.size());
}

/// A blocked page of a high risk, seen by a browser.
STEventData redPage() {
    STEventData event{};
    put(event.eventId, "1");
    put(event.url, "http://shop.example/pay?x=1");
    put(event.browserProcessName, "browser");
    event.urlRating = 60;
    event.action = 3;
    event.isRpxReachable = 1;
    event.count = 4;
    return event;
}

STEventData withUrl(std::string_view url) {
    STEventData event = redPage();
    put(event.url, url);
    return event;
}

/// One wide character a byte, sign-extended.
std::wstring wide(std::string_view bytes) {
    std::wstring text;
    for (const char byte : bytes) {
        const int value = static_cast<unsigned char>(byte);
        text += static_cast<wchar_t>(value < 128 ? value : value - 256);
    }
    return text;
}

template <class Record>
Record read(const std::wstring& text) {
    const auto stream = HVB::makeInStream(text);
    const auto archive = HVB::makeInArchive(*stream);
    Record record;
    *archive >> record;
    return record;
}

std::wstring now() {
    const std::time_t seconds = std::time(nullptr);
    const std::tm utc = *std::gmtime(&seconds);
    wchar_t text[64] = L"";
    EXPECT_NE(std::wcsftime(text, std::size(text), L"%Y-%m-%dT%H:%M:%SZ", &utc), 0U);
    return text;
}

/// A reporter on the machine "unit.example", 192.0.2.17, where mara sits at the console.
class AnEventReporter : public testing::Test {
protected:
    AnEventReporter() {
        SystemDouble::instance() = {};
        SystemDouble::instance().hostName = testing_support::machineNamed("unit.example");
        SystemDouble::instance().lookUp = testing_support::resolverWith({"192.0.2.17"});
        ConsoleUserDouble::instance() = {};
        ConsoleUserDouble::instance().user = "mara";
    }
    ~AnEventReporter() override {
        SystemDouble::instance() = {};
        ConsoleUserDouble::instance() = {};
        Recording::instance().before = nullptr;
    }

    void send(STEventData event) { reporter.sendSTEvent(event); }

    /// The records that sending @p event hands to the hub.
    std::vector<SentLog> sentFor(const STEventData& event) {
        Recording::instance().logs.clear();
        send(event);
        return Recording::instance().logs;
    }
    bool reports(const STEventData& event) { return !sentFor(event).empty(); }

    ReportData reportOf(const STEventData& event) {
        const auto logs = sentFor(event);
        EXPECT_EQ(logs.size(), 1U);
        return logs.empty() ? ReportData() : read<ReportData>(logs.front().text);
    }
    DetailReportData detailOf(const STEventData& event) {
        const auto logs = sentFor(event);
        EXPECT_EQ(logs.size(), 1U);
        return logs.empty() ? DetailReportData() : read<DetailReportData>(logs.front().detailText);
    }
    /// The text under @p key, "(none)" when there is no such key.
    std::wstring attribute(const STEventData& event, const wchar_t* key) {
        const auto attributes = detailOf(event).attributes;
        const auto found = attributes.find(key);
        return found == attributes.end() ? L"(none)" : found->second;
    }
    std::wstring information(const STEventData& event, const wchar_t* key) {
        const auto info = detailOf(event).info;
        EXPECT_LE(info.count(key), 1U);
        const auto found = info.find(key);
        return found == info.end() ? L"(none)" : found->second;
    }

    /// What the hub was asked for in this test.
    std::vector<std::string> calls() {
        const auto all = Recording::instance().calls();
        return {all.begin() + static_cast<std::ptrdiff_t>(earlierCalls), all.end()};
    }

    EventReporter& reporter = *EventReporter::getInstance();
    const std::size_t earlierCalls = Recording::instance().calls().size();
};

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

TEST_F(AnEventReporter, DropsASchemeAndAHostWithoutAPathButReportsThemWithATrailingSlash) {
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

// What goes to the hub.

TEST_F(AnEventReporter, SendsOneRecordOfOneKindToTheHubsSocket) {
    const auto logs = sentFor(redPage());
    ASSERT_EQ(logs.size(), 1U);
    EXPECT_EQ(logs[0].sourceId, 7);
    EXPECT_EQ(logs[0].logType, 8);
    EXPECT_EQ(logs[0].count, 1);
    EXPECT_THAT(calls(),
                ElementsAre("getInstance " + testing_support::privateRoot() + "/usr/local/Orvanta/hvb/var/hvbdsocket64",
                            "sendLog"));
}

TEST_F(AnEventReporter, FillsTheShortRecord) {
    const std::time_t before = std::time(nullptr);
    const ReportData report = reportOf(redPage());
    EXPECT_EQ(report.m_rowId, 18446744073709551615U);
    EXPECT_EQ(report.m_reportName, L"STBlockEvent");
    EXPECT_EQ(report.m_subType, L"AV_ScheduledScan");
    EXPECT_EQ(report.m_reportType, 7);
    EXPECT_GE(report.m_time, before);
    EXPECT_LE(report.m_time, std::time(nullptr));
}

TEST_F(AnEventReporter, FillsTheDetailedRecordAroundItsTables) {
    const std::time_t before = std::time(nullptr);
    const DetailReportData detail = detailOf(redPage());
    EXPECT_EQ(detail.m_name, L"STStaus");
    EXPECT_EQ(detail.m_reportType, 7);
    EXPECT_THAT(detail.m_nested, IsEmpty());
    EXPECT_FALSE(detail.m_flag);
    EXPECT_GE(detail.m_time, before);
    EXPECT_LE(detail.m_time, std::time(nullptr));
}

TEST_F(AnEventReporter, GivesAThreatItsAttributes) {
    const std::wstring before = now();
    DetailReportData detail = detailOf(redPage());
    const std::wstring detected = std::exchange(detail.attributes[L"DetectedUTC"], L"a time");
    EXPECT_GE(detected, before);
    EXPECT_LE(detected, now());
    const DetailReportData::Attributes expected{
        {L"EventID", L"18600"},
        {L"Analyzer", L"NODE_ST_1070UNIX"},
        {L"AnalyzerVersion", L"10.7.8"},
        {L"DetectedUTC", L"a time"},
        {L"ThreatCategory", L"st.detect.url"},
        {L"ThreatSeverity", L"2"},
        {L"Severity", L"4"},
        {L"ThreatName", L"Sentrel Violation"},
        {L"ThreatType", L"IDS_THREAT_TYPE_URL"},
        {L"ThreatHandled", L"1"},
        {L"ThreatActionTaken", L"blocked"},
        {L"SourceURL", L"http://shop.example/pay?x=1"},
        {L"SourceProcessName", L"browser"},
        {L"AnalyzerDetectionMethod", L"URL navigation"},
        {L"TargetHostName", L"unit.example"},
        {L"SourceIPV4", L"192.0.2.17"},
        {L"TargetUserName", L"unit.example\\mara"},
    };
    EXPECT_EQ(detail.attributes, expected);
}

/// The process's time zone for this object's lifetime.
class TimeZone {
public:
    explicit TimeZone(const char* name) {
        if (const char* before = std::getenv("TZ"); before != nullptr) {
            m_before = before;
        }
        setenv("TZ", name, 1);
        tzset();
    }
    ~TimeZone() {
        m_before ? setenv("TZ", m_before->c_str(), 1) : unsetenv("TZ");
        tzset();
    }
    TimeZone(const TimeZone&) = delete;
    TimeZone& operator=(const TimeZone&) = delete;

private:
    std::optional<std::string> m_before;
};

TEST_F(AnEventReporter, TellsUtcWhereverTheMachineIs) {
    const TimeZone east("EAST-5:30");
    const std::wstring before = now();
    const std::wstring detected = attribute(redPage(), L"DetectedUTC");
    EXPECT_GE(detected, before);
    EXPECT_LE(detected, now());
}

TEST_F(AnEventReporter, GivesAnInformationalEventItsAttributesWithoutTheHandledKey) {
    STEventData event = redPage();
    event.urlRating = 20;
    DetailReportData detail = detailOf(event);
    detail.attributes[L"DetectedUTC"] = L"a time";
    const DetailReportData::Attributes expected{
        {L"EventID", L"18600"},
        {L"Analyzer", L"NODE_ST_1070UNIX"},
        {L"AnalyzerVersion", L"10.7.8"},
        {L"DetectedUTC", L"a time"},
        {L"ThreatCategory", L"ops.informational.event"},
        {L"ThreatSeverity", L"6"},
        {L"Severity", L"0"},
        {L"ThreatName", L""},
        {L"ThreatType", L""},
        {L"ThreatActionTaken", L""},
        {L"SourceURL", L"http://shop.example/pay?x=1"},
        {L"SourceProcessName", L"browser"},
        {L"AnalyzerDetectionMethod", L"URL navigation"},
        {L"TargetHostName", L"unit.example"},
        {L"SourceIPV4", L"192.0.2.17"},
        {L"TargetUserName", L"unit.example\\mara"},
    };
    EXPECT_EQ(detail.attributes, expected);
}

TEST_F(AnEventReporter, TakesARatingOf30AndAboveForAThreat) {
    const auto categoryOf = [this](int rating) {
        STEventData event = redPage();
        event.urlRating = rating;
        return attribute(event, L"ThreatCategory");
    };
    for (const int threat : {30, 49, 50, 100}) {
        EXPECT_EQ(categoryOf(threat), L"st.detect.url") << threat;
    }
    for (const int harmless : {-100, -1, 0, 14, 15, 16, 29}) {
        EXPECT_EQ(categoryOf(harmless), L"ops.informational.event") << harmless;
    }
}

TEST_F(AnEventReporter, ReportsNoRatingAndAnUnverifiedOneAsColorSixInformational) {
    for (const int rating : {-100, 15}) {
        STEventData event = redPage();
        event.urlRating = rating;
        EXPECT_EQ(information(event, L"RatingID"), L"6") << rating;
        EXPECT_EQ(attribute(event, L"ThreatHandled"), L"(none)") << rating;
    }
}

TEST_F(AnEventReporter, ReportsABlockedThreatAsActionFourBlocked) {
    EXPECT_EQ(information(redPage(), L"ActionID"), L"4");
    EXPECT_EQ(attribute(redPage(), L"ThreatActionTaken"), L"blocked");
}

TEST_F(AnEventReporter, LeavesTheActionTakenEmptyForAThreatWithoutAnAction) {
    STEventData event = redPage();
    event.action = 0;
    EXPECT_EQ(attribute(event, L"ThreatActionTaken"), L"");
    EXPECT_EQ(information(event, L"ActionID"), L"4");
}

TEST_F(AnEventReporter, NamesTheActionOfAnAllowedAndOfAWarnedThreat) {
    STEventData event = redPage();
    event.action = 1;
    EXPECT_EQ(attribute(event, L"ThreatActionTaken"), L"allowed");
    event.action = 2;
    event.userAction = 1;
    EXPECT_EQ(attribute(event, L"ThreatActionTaken"), L"IDS_THREAT_ACTION_WARN");
}

TEST_F(AnEventReporter, GivesTheEventItsInformation) {
    const DetailReportData::Information expected{
        {L"target", L"ST_EventInfoMT"},
        {L"EventTypeId", L"18600"},
        {L"DomainName", L"shop.example"},
        {L"URL", L"http://shop.example/pay?x=1"},
        {L"Count", L"4"},
        {L"ListID", L"1"},
        {L"RatingID", L"3"},
        {L"ReasonID", L"1"},
        {L"ActionID", L"4"},
    };
    EXPECT_EQ(detailOf(redPage()).info, expected);
}

TEST_F(AnEventReporter, AddsTheContentIdOfABlockedCategory) {
    STEventData event = redPage();
    event.blockedInCategory = 1;
    event.blockedCategoryId = 137;
    EXPECT_EQ(information(event, L"ContentID"), L"137");
    EXPECT_EQ(information(event, L"ReasonID"), L"5");
    EXPECT_EQ(detailOf(event).info.size(), 10U);
    event.blockedInCategory = 2; // any value but 0 adds the pair, only 1 is the reason
    EXPECT_EQ(information(event, L"ContentID"), L"137");
    EXPECT_EQ(information(event, L"ReasonID"), L"1");
    event.blockedInCategory = 0;
    EXPECT_EQ(information(event, L"ContentID"), L"(none)");
}

TEST_F(AnEventReporter, WritesNumbersAsTheyAreAsDecimalText) {
    STEventData event = redPage();
    event.count = -2147483647 - 1;
    event.blockedInCategory = -1;
    event.blockedCategoryId = 2147483647;
    EXPECT_EQ(information(event, L"Count"), L"-2147483648");
    EXPECT_EQ(information(event, L"ContentID"), L"2147483647");
}

// Host, address and user.

TEST_F(AnEventReporter, LeavesOutTheAddressOfAHostThatCannotBeResolvedAndReportsAllTheSame) {
    SystemDouble::instance().lookUp = testing_support::resolverWith({});
    EXPECT_EQ(attribute(redPage(), L"SourceIPV4"), L"(none)");
    EXPECT_EQ(attribute(redPage(), L"TargetHostName"), L"unit.example");
}

TEST_F(AnEventReporter, ReportsWithoutAHostNameWhenTheSystemTellsNone) {
    SystemDouble::instance().hostName = [](char*, std::size_t) { return -1; };
    EXPECT_EQ(attribute(redPage(), L"TargetHostName"), L"");
    EXPECT_EQ(attribute(redPage(), L"SourceIPV4"), L"(none)");
    EXPECT_EQ(attribute(redPage(), L"TargetUserName"), L"\\mara");
}

TEST_F(AnEventReporter, ReportsWhenTheLookUpThrows) {
    SystemDouble::instance().lookUp = [](const char*) -> hostent* { throw std::runtime_error("resolver"); };
    EXPECT_EQ(attribute(redPage(), L"SourceIPV4"), L"(none)");
}

TEST_F(AnEventReporter, NamesRootWhenNobodySitsAtTheConsole) {
    ConsoleUserDouble::instance().user.reset();
    EXPECT_EQ(attribute(redPage(), L"TargetUserName"), L"unit.example\\root");
}

// Texts from outside.

TEST_F(AnEventReporter, EndsATextWithItsFieldWhenTheTerminatorIsMissing) {
    STEventData event = redPage();
    const std::string url = "http://" + std::string(sizeof event.url - 7, '/');
    const std::string process(sizeof event.browserProcessName, 'p');
    put(event.url, url);
    put(event.browserProcessName, process);
    EXPECT_EQ(attribute(event, L"SourceURL"), wide(url));
    EXPECT_EQ(attribute(event, L"SourceProcessName"), wide(process));
}

TEST_F(AnEventReporter, EndsATextAtItsTerminator) {
    STEventData event = redPage();
    std::memcpy(event.url, "http://h/\0tail", 14);
    EXPECT_EQ(attribute(event, L"SourceURL"), L"http://h/");
    EXPECT_EQ(information(event, L"URL"), L"http://h/");
}

/// A URL of @p length bytes whose host is "h" and whose path runs through the byte values from @p first on.
std::string urlOf(std::size_t length, unsigned first, unsigned step) {
    std::string url = "http://h/";
    for (unsigned value = first; url.size() < length; value += step) {
        url += static_cast<char>(value % 255 + 1); // never the terminator
    }
    url.resize(length);
    return url;
}

void expectUrlArrives(const DetailReportData& detail, const std::string& url) {
    ASSERT_EQ(detail.attributes.at(L"SourceURL"), wide(url)) << "length " << url.size();
    ASSERT_EQ(detail.info.find(L"URL")->second, wide(url)) << "length " << url.size();
    ASSERT_EQ(detail.info.find(L"ActionID")->second, L"4") << "what stands behind the URL is whole too";
}

TEST_F(AnEventReporter, CarriesTheByte0xFFAtEveryPlaceOfAUrlOfEveryLength) {
    for (std::size_t length = 9; length <= sizeof(STEventData::url); ++length) {
        const std::string url = urlOf(length, 254, 0);
        expectUrlArrives(detailOf(withUrl(url)), url);
    }
}

TEST_F(AnEventReporter, CarriesEveryByteValueInUrlsOfEveryLength) {
    for (std::size_t length = 9; length <= sizeof(STEventData::url); ++length) {
        const std::string url = urlOf(length, static_cast<unsigned>(length), 1);
        expectUrlArrives(detailOf(withUrl(url)), url);
    }
}

TEST_F(AnEventReporter, CarriesEveryByteValueInDomainAndProcessName) {
    for (unsigned value = 1; value <= 255; ++value) {
        const char byte = static_cast<char>(value);
        const std::string process(sizeof(STEventData::browserProcessName), byte);
        STEventData event = withUrl("http://x" + std::string(3, byte) + "/p");
        put(event.browserProcessName, process);
        const DetailReportData detail = detailOf(event);
        const std::string domain = std::string("x").append(byte == '/' ? 0 : 3, byte);
        ASSERT_EQ(detail.info.find(L"DomainName")->second, wide(domain)) << value;
        ASSERT_EQ(detail.attributes.at(L"SourceProcessName"), wide(process)) << value;
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
