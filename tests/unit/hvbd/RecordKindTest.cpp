// Which reports are of like kind, and what is no report.
#include "apps/hvbd/RecordKind.h"
#include "tests/unit/hvbd/ReportTexts.h"

#include <gtest/gtest.h>

using HVB::hub::kindOf;
using hvbd_tests::reportOf;

namespace {

TEST(ARecordsKind, IsItsSiteItsProcessAndItsAction) {
    const auto kind = kindOf(reportOf(L"host.example", L"one").detail);
    ASSERT_TRUE(kind);
    EXPECT_EQ(kindOf(reportOf(L"host.example", L"two").detail), kind);
    EXPECT_NE(kindOf(reportOf(L"other.example", L"one").detail), kind);
    EXPECT_NE(kindOf(reportOf(L"host.example", L"one", L"chrome").detail), kind);
    EXPECT_NE(kindOf(reportOf(L"host.example", L"one", L"firefox", L"1").detail), kind);
    EXPECT_NE(kindOf(reportOf(L"host.examplef", L"one", L"irefox").detail), kind) << "the parts stay apart";
}

TEST(ARecordsKind, IsNotKnownOfWhatIsNoReport) {
    EXPECT_FALSE(kindOf(""));
    EXPECT_FALSE(kindOf("odd"));
    EXPECT_FALSE(kindOf(hvbd_tests::bytesOf(L"some text")));
    EXPECT_FALSE(kindOf(reportOf(L"host.example", L"one").text)) << "the short record";
    EXPECT_FALSE(kindOf(hvbd_tests::bytesOf(DetailReportData().toWstring()))) << "a report of no site";
    const std::string whole = reportOf(L"host.example", L"one").detail;
    for (std::size_t size = 0; size + 200 < whole.size(); size += 4) {
        ASSERT_FALSE(kindOf(whole.substr(0, size))) << size;
    }
}

} // namespace
