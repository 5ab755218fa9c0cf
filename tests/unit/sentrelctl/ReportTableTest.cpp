// The exact lines of a table of reports.
#include "apps/sentrelctl/reports/ReportTable.h"

#include "tests/unit/sentrelctl/SampleReport.h"

#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>

namespace Sentrel::ctl {
namespace {

class AReportTable : public testing::Test {
protected:
    void SetUp() override {
        ::setenv("TZ", "UTC", 1);
        ::tzset();
    }

    static StoredRecord visit(std::uint64_t id, const std::wstring& url, const std::wstring& action) {
        DetailReportData detail = sampleDetail();
        detail.info = {{L"URL", url}, {L"ActionID", action}, {L"RatingID", L"6"}};
        detail.attributes = {{L"TargetUserName", L"host1\\bert"}};
        StoredRecord record = stored(sampleReport().toWstring(), detail.toWstring());
        record.id = id;
        return record;
    }

    const Palette m_plain{};
};

TEST_F(AReportTable, HasALineForEachReportAndOneHead) {
    ReportTable table(m_plain, 0);
    EXPECT_EQ(table.text({}), "");
    EXPECT_EQ(table.text({sampleRecord(), visit(1234, L"https://b.example/", L"1")}),
              "ID    TIME                 COUNT  ACTION   RATING   USER        URL\n"
              "12    2023-11-14 22:13:20  1      blocked  red      anna@host1  https://red.example/a\n"
              "1234  2023-11-14 22:13:20  1      allowed  unrated  bert@host1  https://b.example/\n");
    EXPECT_EQ(table.text({visit(1235, L"https://c.example/", L"17")}),
              "1235  2023-11-14 22:13:20  1      answer 17  unrated  bert@host1  https://c.example/\n")
        << "a column grows when it must";
}

TEST_F(AReportTable, ShowsWhatItCannotDecode) {
    ReportTable table(m_plain, 0);
    EXPECT_EQ(
        table.text({stored(L"junk", L"junk")}),
        "ID  TIME                 COUNT  ACTION  RATING  USER  URL\n"
        "12  2023-11-14 22:13:20  1      -       -       -     record, type 8 from module 7, cannot be decoded\n");
}

TEST_F(AReportTable, CutsAUrlToTheTerminal) {
    ReportTable table(m_plain, 100);
    const std::string text = table.text({visit(1, L"https://b.example/" + std::wstring(200, L'x'), L"1")});
    const std::string last = text.substr(text.find("https://"));
    EXPECT_EQ(last, "https://b.example/" + std::string(19, 'x') + "\xE2\x80\xA6\n") << "100 columns: " << text;
}

TEST_F(AReportTable, CannotBeDrivenByAUrl) {
    ReportTable table(m_plain, 0);
    EXPECT_NE(table.text({visit(1, L"\x1b[2J\n", L"1")}).find("  \\x1b[2J\\x0a\n"), std::string::npos);
}

TEST_F(AReportTable, MarksThreats) {
    const Palette colored = Palette::of(true);
    ReportTable table(colored, 0);
    EXPECT_NE(table.text({sampleRecord()}).find("\n\x1b[1;31m12  "), std::string::npos);
}

} // namespace
} // namespace Sentrel::ctl
