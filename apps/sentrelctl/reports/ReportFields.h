// Single fields of a decoded report, for whoever shows or compares them.
#pragma once

#include "apps/sentrelctl/reports/Report.h"

#include <string>

namespace Sentrel::ctl {

/// The value of an attribute as bytes, which may be any; empty when there is none.
std::string attributeOf(const DetailReportData& detail, const wchar_t* key);

/// The same of a piece of information; of several the first.
std::string informationOf(const DetailReportData& detail, const wchar_t* key);

/// Whose event it was, as user@host; empty when nobody is named.
std::string userAtHostOf(const DetailReportData& detail);

/// Whether the report tells of a browser event, and so has a URL and an action.
bool isBrowserEvent(const DecodedReport& decoded);

/// What a report of another kind is called, with type and module; printable.
std::string titleOf(const StoredRecord& record, const DecodedReport& decoded);

} // namespace Sentrel::ctl
