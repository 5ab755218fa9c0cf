// The exact text and the exact JSON of a report.
#include "apps/sentrelctl/reports/ReportLayout.h"
#include "apps/sentrelctl/terminal/Json.h"
#include "tests/unit/sentrelctl/SampleReport.h"

#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>

namespace Sentrel::ctl {
namespace {

/// A report as it is shown to people in the time zone of UTC.
class AReport : public testing::Test {
protected:
    void SetUp() override {
        ::setenv("TZ", "UTC", 1);
        ::tzset();
    }

    static std::string shown(const StoredRecord& record) { return reportText(record, decodeReport(record), Palette()); }

    static std::string shown(const DetailReportData& detail) {
        return shown(stored(sampleReport().toWstring(), detail.toWstring()));
    }

    static std::string json(const StoredRecord& record) {
        return jsonText(reportJson(record, decodeReport(record)), JsonMode::Short);
    }

    /// The line of the sample that begins with @p name, with one pair of the sample changed.
    static std::string lineWith(const std::wstring& key, const std::wstring& value, const std::string& name) {
        DetailReportData detail = sampleDetail();
        detail.info.erase(key);
        detail.info.emplace(key, value);
        const std::string text = shown(detail);
        const std::size_t begin = text.find("    " + name);
        return begin == std::string::npos ? "" : text.substr(begin, text.find('\n', begin) - begin);
    }
};

TEST_F(AReport, TellsABrowserEventInWordsWithItsCodes) {
    EXPECT_EQ(shown(sampleRecord()), "#12  2023-11-14 22:13:20 +0000  blocked, threat (severity 2)\n"
                                     "    URL       https://red.example/a\n"
                                     "    Browser   firefox\n"
                                     "    User      anna@host1 (192.0.2.7)\n"
                                     "    Rating    red (3)\n"
                                     "    Reason    rating (1)\n"
                                     "    Action    blocked (4)\n"
                                     "    List      not on the allow/block list (1)\n"
                                     "    Count     1\n");
}

TEST_F(AReport, TellsAnInformationalEvent) {
    DetailReportData detail = sampleDetail();
    detail.attributes = {{L"ThreatCategory", L"ops.informational.event"}, {L"ThreatSeverity", L"6"}};
    detail.info = {{L"URL", L"https://a.example/"}, {L"ActionID", L"1"}, {L"RatingID", L"1"}, {L"ContentID", L"44"}};
    EXPECT_EQ(shown(detail), "#12  2023-11-14 22:13:20 +0000  allowed, information (severity 6)\n"
                             "    URL       https://a.example/\n"
                             "    Rating    minimal risk (1)\n"
                             "    Action    allowed (1)\n"
                             "    Category  44\n");
}

TEST_F(AReport, HasWordsForTheCodesWhoseMeaningIsKnown) {
    EXPECT_EQ(lineWith(L"RatingID", L"2", "Rating"), "    Rating    yellow (2)");
    EXPECT_EQ(lineWith(L"RatingID", L"4", "Rating"), "    Rating    unrated (4)");
    EXPECT_EQ(lineWith(L"RatingID", L"6", "Rating"), "    Rating    unrated or unverified (6)");
    EXPECT_EQ(lineWith(L"ReasonID", L"2", "Reason"), "    Reason    allow/block list (2)");
    EXPECT_EQ(lineWith(L"ReasonID", L"3", "Reason"), "    Reason    phishing (3)");
    EXPECT_EQ(lineWith(L"ReasonID", L"5", "Reason"), "    Reason    content category (5)");
    EXPECT_EQ(lineWith(L"ListID", L"2", "List"), "    List      on the list, not blocked by it (2)");
    EXPECT_EQ(lineWith(L"ListID", L"3", "List"), "    List      blocked by the list (3)");
    EXPECT_EQ(lineWith(L"ActionID", L"2", "Action"), "    Action    warned (2)");
    EXPECT_EQ(lineWith(L"ActionID", L"5", "Action"), "    Action    answer to a warning (5)");
}

TEST_F(AReport, ShowsTheBareCodeWhenItsMeaningIsNotKnown) {
    EXPECT_EQ(lineWith(L"RatingID", L"5", "Rating"), "    Rating    5");
    EXPECT_EQ(lineWith(L"ReasonID", L"4", "Reason"), "    Reason    4");
    EXPECT_EQ(lineWith(L"ListID", L"-1", "List"), "    List      -1");
}

TEST_F(AReport, CannotDriveTheTerminal) {
    EXPECT_EQ(lineWith(L"URL", L"http://\x1b]0;x\a\n#13", "URL"), "    URL       http://\\x1b]0;x\\x07\\x0a#13");
    const std::wstring accent{L'c', static_cast<wchar_t>(0xFFFFFFC3), static_cast<wchar_t>(0xFFFFFFA9)};
    EXPECT_EQ(lineWith(L"URL", accent, "URL"), "    URL       c\xC3\xA9");
    EXPECT_EQ(lineWith(L"URL", accent.substr(0, 2), "URL"), "    URL       c\\xc3");
    DetailReportData detail;
    detail.attributes = {{L"\x1b[1m", L"\r"}};
    EXPECT_EQ(shown(detail), "#12  2023-11-14 22:13:20 +0000  STBlockEvent, type 8 from module 7\n"
                             "    \\x1b[1m   \\x0d\n");
}

TEST_F(AReport, ShowsEveryPairOfAnotherKindOfReport) {
    DetailReportData detail;
    detail.m_name = L"Other";
    detail.attributes = {{L"Name", L"value"}, {L"Empty", L""}};
    detail.info = {{L"Key", L"one"}, {L"Key", L"two"}};
    StoredRecord record = stored(detail.toWstring(), L"");
    record.type = HVB::LOG_TYPE_RECENT_EVENT;
    EXPECT_EQ(shown(record), "#12  2023-11-14 22:13:20 +0000  Other, type 7 from module 7\n"
                             "    Empty     -\n"
                             "    Name      value\n"
                             "    Key       one\n"
                             "    Key       two\n");
}

TEST_F(AReport, SaysWhatCannotBeDecoded) {
    EXPECT_EQ(shown(stored(L"junk", L"junk")),
              "#12  2023-11-14 22:13:20 +0000  record, type 8 from module 7\n"
              "    Unread    cannot be decoded: text: invalid signature; detail: invalid signature\n");
}

TEST_F(AReport, MarksAThreatForTheEyeWhenColoursAreOn) {
    const StoredRecord record = sampleRecord();
    const std::string text = reportText(record, decodeReport(record), Palette::of(true));
    EXPECT_EQ(text.substr(0, text.find('\n', text.find('\n') + 1) + 1),
              "\x1b[1m#12\x1b[0m  2023-11-14 22:13:20 +0000  \x1b[1;31mblocked, threat (severity 2)\x1b[0m\n"
              "    \x1b[2mURL      \x1b[0m https://red.example/a\n");
}

TEST_F(AReport, ShowsTimesBeforeTheEpoch) {
    StoredRecord record = sampleRecord();
    record.storedAt = -1;
    EXPECT_EQ(shown(record).substr(0, 30), "#12  1969-12-31 23:59:59 +0000");
    EXPECT_NE(json(record).find(R"("stored_at":"1969-12-31T23:59:59.999999Z")"), std::string::npos);
}

TEST_F(AReport, HasStableFieldNamesInJson) {
    EXPECT_EQ(json(sampleRecord()),
              R"({"id":12,"stored_at":"2023-11-14T22:13:20.000123Z","source":7,"type":8,"count":1,)"
              R"("report":{"row_id":18446744073709551615,"name":"STBlockEvent","sub_type":"AV_ScheduledScan",)"
              R"("time":1700000000,"report_type":7},)"
              R"("detail":{"name":"STStaus","attributes":{"SourceIPV4":"192.0.2.7","SourceProcessName":"firefox",)"
              R"("TargetUserName":"host1\\anna","ThreatCategory":"st.detect.url","ThreatSeverity":"2"},)"
              R"("info":[{"key":"ActionID","value":"4"},{"key":"Count","value":"1"},{"key":"ListID","value":"1"},)"
              R"({"key":"RatingID","value":"3"},{"key":"ReasonID","value":"1"},)"
              R"({"key":"URL","value":"https://red.example/a"}],)"
              R"("nested":[],"flag":false,"time":1700000000,"report_type":7},"error":null})"
              "\n");
}

TEST_F(AReport, KeepsEqualKeysAndNestedPairsApartInJson) {
    DetailReportData detail = sampleDetail();
    detail.attributes.clear();
    detail.info = {{L"Key", L"one"}, {L"Key", L"two"}};
    detail.m_nested = {{L"N", {{L"a", L"b"}}}, {L"N", {}}};
    detail.m_flag = true;
    EXPECT_NE(json(stored(sampleReport().toWstring(), detail.toWstring()))
                  .find(R"("info":[{"key":"Key","value":"one"},{"key":"Key","value":"two"}],)"
                        R"("nested":[{"key":"N","value":{"a":"b"}},{"key":"N","value":{}}],"flag":true)"),
              std::string::npos);
}

TEST_F(AReport, HasAllFieldsInJsonAlsoWhenItCannotBeDecoded) {
    EXPECT_EQ(json(stored(L"junk", L"")),
              R"({"id":12,"stored_at":"2023-11-14T22:13:20.000123Z","source":7,"type":8,"count":1,)"
              R"("report":null,"detail":null,"error":"text: invalid signature; detail: invalid signature"})"
              "\n");
}

} // namespace
} // namespace Sentrel::ctl
