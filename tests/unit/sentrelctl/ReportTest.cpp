// Reading a report out of a log record, whatever the record holds.
#include "apps/sentrelctl/reports/Report.h"
#include "tests/unit/sentrelctl/SampleReport.h"

#include <gtest/gtest.h>

namespace Sentrel::ctl {
namespace {

TEST(ABrowserEvent, IsDecodedWhole) {
    const DecodedReport decoded = decodeReport(sampleRecord());
    EXPECT_EQ(decoded.error, "");
    ASSERT_TRUE(decoded.report && decoded.detail);
    EXPECT_EQ(decoded.report->m_rowId, UINT64_MAX);
    EXPECT_EQ(decoded.report->m_reportName, L"STBlockEvent");
    EXPECT_EQ(decoded.report->m_subType, L"AV_ScheduledScan");
    EXPECT_EQ(decoded.report->m_time, 1700000000);
    EXPECT_EQ(decoded.report->m_reportType, 7);
    EXPECT_EQ(decoded.detail->attributes, sampleDetail().attributes);
    EXPECT_EQ(decoded.detail->info, sampleDetail().info);
}

TEST(ABrowserEvent, KeepsSignExtendedBytesOfItsUrl) {
    DetailReportData detail = sampleDetail();
    const std::wstring url{L'h', static_cast<wchar_t>(0xFFFFFFC3), static_cast<wchar_t>(0xFFFFFFFF), L' '};
    detail.info = {{L"URL", url}};
    const DecodedReport decoded = decodeReport(stored(sampleReport().toWstring(), detail.toWstring()));
    ASSERT_TRUE(decoded.detail);
    EXPECT_EQ(decoded.detail->info.find(L"URL")->second, url);
}

TEST(ARecentEvent, HasItsDetailedRecordAsItsText) {
    StoredRecord record = stored(sampleDetail().toWstring(), L"");
    record.type = HVB::LOG_TYPE_RECENT_EVENT;
    const DecodedReport decoded = decodeReport(record);
    EXPECT_EQ(decoded.error, "");
    EXPECT_FALSE(decoded.report);
    ASSERT_TRUE(decoded.detail);
    EXPECT_EQ(decoded.detail->m_name, L"STStaus");
}

TEST(ADamagedRecord, SaysForEachTextWhatIsWrong) {
    const DecodedReport decoded = decodeReport(stored(L"no archive", L""));
    EXPECT_FALSE(decoded.report || decoded.detail);
    EXPECT_EQ(decoded.error, "text: invalid signature; detail: invalid signature");
}

TEST(ADamagedRecord, KeepsTheHalfThatCanBeRead) {
    const DecodedReport decoded = decodeReport(stored(L"", sampleDetail().toWstring()));
    EXPECT_FALSE(decoded.report);
    EXPECT_TRUE(decoded.detail);
    EXPECT_EQ(decoded.error, "text: invalid signature");
}

TEST(ADamagedRecord, IsAnErrorWhereverItIsCut) {
    const std::wstring whole = sampleDetail().toWstring();
    // Its last value is one digit: only a text without it lacks something.
    for (std::size_t size = 0; size + 2 < whole.size(); ++size) {
        const DecodedReport decoded = decodeReport(stored(sampleReport().toWstring(), whole.substr(0, size)));
        ASSERT_FALSE(decoded.detail) << size;
        ASSERT_NE(decoded.error, "") << size;
    }
}

TEST(ADamagedRecord, IsRefusedAtOnceWhenItsLengthLies) {
    std::wstring text = sampleDetail().toWstring();
    const std::size_t name = text.find(L"7 STStaus");
    ASSERT_NE(name, std::wstring::npos);
    text.replace(name, 1, L"2000000000");
    EXPECT_EQ(decodeReport(stored(sampleReport().toWstring(), text)).error, "detail: input stream error");
}

} // namespace
} // namespace Sentrel::ctl
