// Reports below each other, one a line.
#pragma once

#include "apps/sentrelctl/reports/Report.h"
#include "apps/sentrelctl/terminal/Output.h"

#include <array>
#include <cstddef>
#include <string>
#include <vector>

namespace Sentrel::ctl {

/// Lays reports out as a table that may go on for ever: the columns are as wide as the pages until then needed, so rows
/// that come later may stand further right. Times are in the local time zone.
/// Threads: one. Owner: the verb.
class ReportTable {
public:
    /// @param lineWidth columns of the terminal, to which the URL is cut; 0: nothing is cut.
    ReportTable(const Palette& palette, std::size_t lineWidth);

    /// A page's lines, with the head in front of the first page. Of no records it is empty.
    std::string text(const std::vector<StoredRecord>& page);

private:
    static constexpr std::size_t kColumns = 7;
    struct Row {
        std::array<std::string, kColumns> cells;
        const char* mark = ""; ///< for the eye, in front of the row
    };

    Row rowOf(const StoredRecord& record) const;
    std::string line(const Row& row) const;

    const Palette& m_palette;
    const std::size_t m_lineWidth;
    std::array<std::size_t, kColumns> m_widths{};
    bool m_hasHead = false;
};

} // namespace Sentrel::ctl
