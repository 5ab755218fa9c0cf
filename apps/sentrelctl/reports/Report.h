// A log record of the hub, and the report that is in it.
#pragma once

#include "events/ReportRecords.h"

#include <cstdint>
#include <optional>
#include <string>

namespace Sentrel::ctl {

/// A log record as the hub keeps it.
struct StoredRecord {
    std::uint64_t id = 0;
    std::int64_t storedAt = 0; ///< microseconds since the epoch
    std::int32_t source = 0;
    std::int32_t type = 0;
    std::wstring text;
    std::wstring detailText;
    std::int32_t count = 0;
};

/// What was found in a record. With an error, it also holds what could be read before the error.
struct DecodedReport {
    std::optional<ReportData> report;
    std::optional<DetailReportData> detail;
    std::string error; ///< empty when all of the record was read
};

/// Reads the report in @p record. A record of recent events carries the detailed one as its text; all others carry
/// the short one there and the detailed one behind it. Never throws for what the record holds.
DecodedReport decodeReport(const StoredRecord& record);

} // namespace Sentrel::ctl
