// What stands in the two records that an event becomes.
#include "tests/unit/events/EventReporterFixture.h"
#include "tests/unit/events/EventsRoot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

using namespace testing_support;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// What goes to the hub.

TEST_F(AnEventReporter, SendsOneRecordOfOneKindToTheHubsSocket) {
    const auto logs = sentFor(redPage());
    ASSERT_EQ(logs.size(), 1U);
    EXPECT_EQ(logs[0].sourceId, 7);
    EXPECT_EQ(logs[0].logType, 8);
    EXPECT_EQ(logs[0].count, 1);
    EXPECT_THAT(calls(),
                ElementsAre("getInstance " + privateRoot() + "/usr/local/Orvanta/hvb/var/hvbdsocket64", "sendLog"));
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

TEST_F(AnEventReporter, GivesAnInformationalEventItsAttributes) {
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

TEST_F(AnEventReporter, ReportsUnratedAndUnverifiedPagesInColorSix) {
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

TEST_F(AnEventReporter, LeavesOutTheAddressOfAHostThatCannotBeResolved) {
    SystemDouble::instance().lookUp = resolverWith({});
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

TEST_F(AnEventReporter, CarriesUrlsOfTheByte0xFFOfEveryLength) {
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

} // namespace
