// The preferences as a person reads them, and as a program does.
#pragma once

#include "apps/sentrelctl/preferences/PreferenceClient.h"
#include "apps/sentrelctl/preferences/PreferenceNames.h"
#include "apps/sentrelctl/terminal/Json.h"
#include "apps/sentrelctl/terminal/Output.h"

#include <string>
#include <vector>

namespace Sentrel::ctl {

/// A line with a name and what is said of it, its newline included.
std::string rowText(std::string_view name, const std::string& value, const Palette& palette);

/// A line for each preference, and one with the size of each list.
std::string snapshotText(const Snapshot& snapshot, const Palette& palette);

/// Every preference and both lists whole.
Json snapshotJson(const Snapshot& snapshot);

/// The names of the blocked categories, in the daemon's order.
std::vector<std::string> categoryNames(const STPreferences& values);

/// A list of names for JSON.
Json namesJson(const std::vector<std::string>& names);

/// One preference, or one list, that is not what it was.
struct Change {
    std::string text; ///< lines, each indented and with its newline
    Json json;
};

/// The differences between @p before and @p after. Lists count as sets: their order is ignored.
std::vector<Change> changesBetween(const Snapshot& before, const Snapshot& after);

} // namespace Sentrel::ctl
