// The two records of a report and their archives, written and read. All real; allocations are metered.
#include "events/ReportRecords.h"

#include "tests/support/ArchiveValue.h"
#include "tests/unit/events/AllocationMeter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <cwchar>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

using boost::archive::archive_exception;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing_support::AllocationMeter;
using testing_support::valueIn;

constexpr wchar_t kByte0xFF = -1; // sign-extended; the same value as WEOF
static_assert(static_cast<std::wint_t>(kByte0xFF) == WEOF);

/// What stands in front of every archive, with the number of the library's own format.
std::wstring header() {
    return testing_support::archiveHeader() + L" ";
}

/// Why a text is refused, nothing when it is read.
template <class Record>
std::optional<archive_exception::exception_code> refusalOf(const std::wstring& text) {
    try {
        valueIn<Record>(text);
        return std::nullopt;
    } catch (const archive_exception& refusal) {
        return refusal.code;
    }
}

DetailReportData filled() {
    DetailReportData detail;
    detail.m_name = L"name";
    detail.attributes = {{L"a", L"b"}, {L"c", L""}};
    detail.info.emplace(L"k", L"v");
    detail.info.emplace(L"k", L"u");
    detail.m_nested.emplace(L"n", DetailReportData::Attributes{{L"x", L"y"}});
    detail.m_nested.emplace(L"n", DetailReportData::Attributes{});
    detail.m_flag = true;
    detail.m_time = 6;
    detail.m_reportType = 7;
    return detail;
}

void expectEqual(const DetailReportData& left, const DetailReportData& right) {
    EXPECT_EQ(left.m_name, right.m_name);
    EXPECT_EQ(left.attributes, right.attributes);
    EXPECT_EQ(left.info, right.info);
    EXPECT_EQ(left.m_nested, right.m_nested);
    EXPECT_EQ(left.m_flag, right.m_flag);
    EXPECT_EQ(left.m_time, right.m_time);
    EXPECT_EQ(left.m_reportType, right.m_reportType);
}

TEST(AReport, BeginsWithAllBitsOfItsRowSetAndTheTimeOfItsMaking) {
    const std::time_t before = std::time(nullptr);
    const ReportData report;
    EXPECT_EQ(report.m_rowId, 0xFFFFFFFFFFFFFFFFU);
    EXPECT_EQ(report.m_reportName, L"");
    EXPECT_EQ(report.m_subType, L"");
    EXPECT_GE(report.m_time, before);
    EXPECT_LE(report.m_time, std::time(nullptr));
    EXPECT_EQ(report.m_reportType, 0);
}

TEST(AReport, IsArchivedMemberByMemberInItsOrder) {
    ReportData report;
    report.m_reportName = L"STBlockEvent";
    report.m_subType = L"AV_ScheduledScan";
    report.m_time = 1234567890;
    report.m_reportType = 7;
    EXPECT_EQ(report.toWstring(),
              header() + L"0 0 18446744073709551615 12 STBlockEvent 16 AV_ScheduledScan 1234567890 7");
}

TEST(AReport, ReadsBackAsItWasWritten) {
    ReportData report;
    report.m_rowId = 42;
    report.m_reportName = L"a name with blanks ";
    report.m_subType = L"\n";
    report.m_time = -5;
    report.m_reportType = -2147483647 - 1;
    const auto copy = valueIn<ReportData>(report.toWstring());
    EXPECT_EQ(copy.m_rowId, report.m_rowId);
    EXPECT_EQ(copy.m_reportName, report.m_reportName);
    EXPECT_EQ(copy.m_subType, report.m_subType);
    EXPECT_EQ(copy.m_time, report.m_time);
    EXPECT_EQ(copy.m_reportType, report.m_reportType);
}

TEST(AReport, OfANewerClassVersionIsRefused) {
    EXPECT_EQ(refusalOf<ReportData>(header() + L"0 1 1 0  0  5 0"), archive_exception::unsupported_class_version);
}

TEST(ADetailedReport, BeginsEmptyWithTheTimeOfItsMaking) {
    const std::time_t before = std::time(nullptr);
    const DetailReportData detail;
    EXPECT_EQ(detail.m_name, L"");
    EXPECT_THAT(detail.attributes, IsEmpty());
    EXPECT_THAT(detail.info, IsEmpty());
    EXPECT_THAT(detail.m_nested, IsEmpty());
    EXPECT_FALSE(detail.m_flag);
    EXPECT_GE(detail.m_time, before);
    EXPECT_LE(detail.m_time, std::time(nullptr));
    EXPECT_EQ(detail.m_reportType, 0);
}

TEST(ADetailedReport, ThatIsEmptyYieldsAFullArchive) {
    DetailReportData detail;
    detail.m_time = 6;
    // Class 0 1, an empty name, three empty containers, the flag, the time and the type.
    EXPECT_EQ(detail.toWstring(), header() + L"0 1 0  0 0 0 0 0 0 0 0 0 0 0 0 0 6 0");
    expectEqual(valueIn<DetailReportData>(detail.toWstring()), detail);
}

TEST(ADetailedReport, IsArchivedMemberByMemberInItsOrder) {
    EXPECT_EQ(filled().toWstring(), header() + L"0 1 4 name 0 0 2 0 0 0 1 a 1 b 1 c 0  0 0 2 0 1 k 1 v 1 k 1 u "
                                               L"0 0 2 0 0 0 1 n 1 0 1 x 1 y 1 n 0 0 1 6 7");
}

TEST(ADetailedReport, ReadsBackAsItWasWritten) {
    const DetailReportData detail = filled();
    expectEqual(valueIn<DetailReportData>(detail.toWstring()), detail);
}

TEST(ADetailedReport, KeepsEqualKeysOfItsInformationAsSeparateEntries) {
    DetailReportData detail;
    for (const wchar_t* value : {L"one", L"two", L"one"}) {
        detail.info.emplace(L"key", value);
    }
    EXPECT_THAT(valueIn<DetailReportData>(detail.toWstring()).info,
                ElementsAre(Pair(L"key", L"one"), Pair(L"key", L"two"), Pair(L"key", L"one")));
}

TEST(ADetailedReport, OfClassVersionZeroReadsBackWithoutNestedOnesAndFlag) {
    const auto detail =
        valueIn<DetailReportData>(header() + L"0 0 4 name 0 0 1 0 0 0 1 a 1 b 0 0 1 0 1 k 1 v 1234567890 7");
    EXPECT_EQ(detail.m_name, L"name");
    EXPECT_THAT(detail.attributes, ElementsAre(Pair(L"a", L"b")));
    EXPECT_THAT(detail.info, ElementsAre(Pair(L"k", L"v")));
    EXPECT_THAT(detail.m_nested, IsEmpty());
    EXPECT_FALSE(detail.m_flag);
    EXPECT_EQ(detail.m_time, 1234567890);
    EXPECT_EQ(detail.m_reportType, 7);
}

TEST(ADetailedReport, OfClassVersionTwoIsRefused) {
    EXPECT_EQ(refusalOf<DetailReportData>(header() + L"0 2 0  0 0 0 0 0 0 0 0 0 0 0 0 0 6 0"),
              archive_exception::unsupported_class_version);
}

// Texts of every value.

/// A text of @p length characters that runs through the wide forms of all byte values.
std::wstring allBytes(std::size_t length) {
    std::wstring text;
    for (std::size_t index = 0; index < length; ++index) {
        text += static_cast<wchar_t>(static_cast<signed char>((index + length) % 256));
    }
    return text;
}

void expectTextSurvives(const std::wstring& text) {
    ReportData report;
    report.m_reportName = text;
    report.m_subType = text;
    const auto reportCopy = valueIn<ReportData>(report.toWstring());
    ASSERT_EQ(reportCopy.m_reportName, text) << "length " << text.size();
    ASSERT_EQ(reportCopy.m_subType, text) << "length " << text.size();
    ASSERT_EQ(reportCopy.m_time, report.m_time) << "length " << text.size();
    DetailReportData detail;
    detail.m_name = text;
    detail.attributes = {{L"key", text}, {text, L"value"}};
    detail.info.emplace(text, text);
    detail.m_nested.emplace(text, DetailReportData::Attributes{{text, text}});
    detail.m_reportType = 7;
    ASSERT_NO_FATAL_FAILURE(expectEqual(valueIn<DetailReportData>(detail.toWstring()), detail));
    ASSERT_FALSE(testing::Test::HasFailure()) << "length " << text.size();
}

TEST(ARecordsText, OfTheByte0xFFAloneSurvivesAtEveryLength) {
    for (std::size_t length = 0; length <= 700; ++length) {
        ASSERT_NO_FATAL_FAILURE(expectTextSurvives(std::wstring(length, kByte0xFF)));
    }
}

TEST(ARecordsText, OfAllByteValuesSurvivesAtEveryLength) {
    for (std::size_t length = 0; length <= 700; ++length) {
        ASSERT_NO_FATAL_FAILURE(expectTextSurvives(allBytes(length)));
    }
}

TEST(ARecordsText, SurvivesAtLengthsAroundTheBuffersOfStreams) {
    for (const std::size_t size : {1024U, 4096U, 8192U, 65536U}) {
        for (std::size_t length = size - 2; length <= size + 2; ++length) {
            ASSERT_NO_FATAL_FAILURE(expectTextSurvives(std::wstring(length, kByte0xFF)));
        }
    }
}

TEST(ARecordsText, SurvivesInManyEntries) {
    DetailReportData detail;
    for (int entry = 0; entry < 2000; ++entry) {
        detail.info.emplace(std::to_wstring(entry), std::wstring(3, kByte0xFF));
    }
    expectEqual(valueIn<DetailReportData>(detail.toWstring()), detail);
}

TEST(ARecordsText, SurvivesWithCharactersThatNoEncodingAccepts) {
    expectTextSurvives(std::wstring{L'\0', 0x7FFFFFFF, -0x7FFFFFFF - 1, 0xD800, 0x10FFFF, L' ', L'\n', L'9'});
}

// Numbers that lie.

constexpr std::size_t kModest = std::size_t{1} << 20;

void expectRefusedCheaply(const std::wstring& text) {
    std::optional<archive_exception::exception_code> refusal;
    std::size_t greatest = 0;
    {
        const AllocationMeter meter;
        refusal = refusalOf<DetailReportData>(text);
        greatest = meter.greatest();
    }
    EXPECT_EQ(refusal, archive_exception::input_stream_error);
    EXPECT_LT(greatest, kModest);
}

TEST(AReader, SeesItsOwnAllocations) { // so that the tests below cannot pass without a meter
    const AllocationMeter meter;
    valueIn<DetailReportData>(header() + L"0 1 100000 " + std::wstring(100000, L'x') +
                              L" 0 0 0 0 0 0 0 0 0 0 0 0 0 6 0");
    EXPECT_GT(meter.greatest(), 100000 * sizeof(wchar_t));
}

TEST(AReader, RefusesALengthThatTheTextCannotHoldBeforeItAllocates) {
    for (const wchar_t* length : {L"2000000000", L"18446744073709551615", L"99999999999999999999999", L"-1"}) {
        expectRefusedCheaply(header() + L"0 1 " + length + L" name 0 0 0 0 0 0 0 0 0 0 0 0 0 6 0");
    }
}

TEST(AReader, RefusesALengthThatIsOneGreaterThanTheRestOfTheText) {
    const std::wstring rest = L"name 0 0 0 0 0 0 0 0 0 0 0 0 0 6 0";
    expectRefusedCheaply(header() + L"0 1 " + std::to_wstring(rest.size() + 1) + L" " + rest);
}

TEST(AReader, RefusesACountThatTheTextCannotHoldBeforeItAllocates) {
    for (const wchar_t* count : {L"2000000000", L"18446744073709551615", L"-1"}) {
        expectRefusedCheaply(header() + L"0 1 4 name 0 0 " + count + L" 0 0 0 1 a 1 b 0 0 0 0 0 0 0 0 0 6 0");
        expectRefusedCheaply(header() + L"0 1 4 name 0 0 0 0 0 0 " + count + L" 0 0 0 1 a 1 b 0 0 0 0 0 6 0");
        expectRefusedCheaply(header() + L"0 1 4 name 0 0 0 0 0 0 0 0 0 0 " + count + L" 0 0 0 1 a 1 0 0 6 0");
    }
}

std::vector<std::wstring> wordsOf(const std::wstring& text) {
    std::vector<std::wstring> words(1);
    for (const wchar_t c : text) {
        if (c == L' ') {
            words.emplace_back();
        } else {
            words.back() += c;
        }
    }
    return words;
}

std::wstring joined(const std::vector<std::wstring>& words) {
    std::wstring text = words.front();
    for (std::size_t index = 1; index < words.size(); ++index) {
        text += L" " + words[index];
    }
    return text;
}

TEST(AReader, EndsCheaplyWhateverASingleWordOfAnArchiveClaims) {
    const std::vector<std::wstring> words = wordsOf(filled().toWstring());
    ASSERT_EQ(joined(words), filled().toWstring());
    std::size_t refused = 0;
    for (std::size_t index = 0; index < words.size(); ++index) {
        for (const wchar_t* lie : {L"", L"1", L"5", L"255", L"-1", L"2000000000", L"18446744073709551615", L"x"}) {
            std::vector<std::wstring> lying = words;
            lying[index] = lie;
            const AllocationMeter meter;
            refused += refusalOf<DetailReportData>(joined(lying)).has_value() ? 1U : 0U;
            ASSERT_LT(meter.total(), kModest) << "word " << index;
        }
    }
    EXPECT_GT(refused, words.size());
}

TEST(AReader, RefusesATextThatIsCutAnywhere) {
    const std::wstring whole = filled().toWstring();
    for (std::size_t length = 0; length < whole.size(); ++length) {
        const AllocationMeter meter;
        EXPECT_TRUE(refusalOf<DetailReportData>(whole.substr(0, length)).has_value()) << "cut to " << length;
        EXPECT_LT(meter.total(), kModest) << "cut to " << length;
    }
}

} // namespace
