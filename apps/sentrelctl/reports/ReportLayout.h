// A report as a person reads it, and as a program does.
#pragma once

#include "apps/sentrelctl/reports/Report.h"
#include "apps/sentrelctl/terminal/Json.h"
#include "apps/sentrelctl/terminal/Output.h"

#include <string>

namespace Sentrel::ctl {

/// A block of lines: a headline with id, time and what happened, then a line for each thing that is known. A report
/// of a browser event is told in words with the codes behind them; of any other report every pair is shown. What
/// could not be decoded is said in the block. Times are in the local time zone.
std::string reportText(const StoredRecord& record, const DecodedReport& decoded, const Palette& palette);

/// All of the record under fixed names; times in UTC. What is missing is null.
Json reportJson(const StoredRecord& record, const DecodedReport& decoded);

} // namespace Sentrel::ctl
