#include "apps/sentrelctl/reports/ReportTable.h"

#include "apps/sentrelctl/reports/ReportFields.h"
#include "apps/sentrelctl/terminal/Times.h"
#include "base/PrintableText.h"

#include <algorithm>
#include <fmt/format.h>
#include <string_view>
#include <utility>

namespace Sentrel::ctl {

using Sentrel::text::printable;
using Sentrel::text::shortened;
namespace {

constexpr std::size_t kMaxReportCell = 40;   // of all columns but the last
constexpr std::size_t kShortestUrl = 20;     // columns that a URL has on the narrowest terminal
constexpr std::size_t kExcessOfEllipsis = 2; // it has three bytes and takes one column
constexpr std::string_view kReportGap = "  ";

using CellWords = std::array<std::pair<std::string_view, std::string_view>, 5>;
// Another action is what the user answered to a warning.
constexpr CellWords kActionCells{{{"1", "allowed"}, {"2", "warned"}, {"4", "blocked"}, {"", "-"}, {"", "-"}}};
constexpr CellWords kRatingCells{{{"1", "minimal"}, {"2", "yellow"}, {"3", "red"}, {"4", "unrated"}, {"6", "unrated"}}};

/// The word for a code, or the code itself behind @p otherwise.
std::string cellWord(const CellWords& words, const std::string& code, const char* otherwise = "") {
    const auto* const found =
        std::find_if(words.begin(), words.end(), [&code](const auto& each) { return each.first == code; });
    return found != words.end() ? std::string(found->second) : otherwise + code;
}

std::string reportCell(const std::string& value) {
    return value.empty() ? "-" : shortened(printable(value), kMaxReportCell);
}

} // namespace

ReportTable::ReportTable(const Palette& palette, std::size_t lineWidth) : m_palette(palette), m_lineWidth(lineWidth) {}

ReportTable::Row ReportTable::rowOf(const StoredRecord& record) const {
    const DecodedReport decoded = decodeReport(record);
    Row row{
        {std::to_string(record.id), localTableTime(record.storedAt), std::to_string(record.count), "-", "-", "-", ""},
        ""};
    auto& [id, time, count, action, rating, user, url] = row.cells;
    if (!isBrowserEvent(decoded)) {
        url = titleOf(record, decoded);
        url += decoded.error.empty() ? "" : ", cannot be decoded";
        row.mark = decoded.error.empty() ? "" : m_palette.caution;
        return row;
    }
    action = reportCell(cellWord(kActionCells, informationOf(*decoded.detail, L"ActionID"), "answer "));
    rating = reportCell(cellWord(kRatingCells, informationOf(*decoded.detail, L"RatingID")));
    user = reportCell(userAtHostOf(*decoded.detail));
    url = printable(informationOf(*decoded.detail, L"URL"));
    row.mark = attributeOf(*decoded.detail, L"ThreatCategory") == "st.detect.url" ? m_palette.alarm : "";
    return row;
}

std::string ReportTable::line(const Row& row) const {
    std::string text;
    std::size_t taken = 0;
    for (std::size_t at = 0; at + 1 < kColumns; ++at) {
        text += fmt::format("{:<{}}{}", row.cells[at], m_widths[at], kReportGap);
        taken += m_widths[at] + kReportGap.size();
    }
    const std::size_t room = m_lineWidth > taken + kShortestUrl ? m_lineWidth - taken : kShortestUrl;
    const std::string& url = row.cells.back();
    text += m_lineWidth == 0 || url.size() <= room ? url : shortened(url, room + kExcessOfEllipsis);
    return fmt::format("{}{}{}\n", row.mark, text, *row.mark != '\0' ? m_palette.plain : "");
}

std::string ReportTable::text(const std::vector<StoredRecord>& page) {
    std::vector<Row> rows;
    if (!m_hasHead && !page.empty()) {
        rows.push_back({{"ID", "TIME", "COUNT", "ACTION", "RATING", "USER", "URL"}, m_palette.strong});
        m_hasHead = true;
    }
    for (const StoredRecord& record : page) {
        rows.push_back(rowOf(record));
    }
    for (const Row& row : rows) {
        for (std::size_t at = 0; at < kColumns; ++at) {
            m_widths[at] = std::max(m_widths[at], row.cells[at].size());
        }
    }
    std::string text;
    for (const Row& row : rows) {
        text += line(row);
    }
    return text;
}

} // namespace Sentrel::ctl
