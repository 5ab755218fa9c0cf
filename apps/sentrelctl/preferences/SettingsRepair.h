// What can be saved of a damaged settings file, and the new file that is made of it.
#pragma once

#include "apps/sentrelctl/preferences/SettingsForm.h"
#include "platform/settings/SettingsSnapshot.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace Sentrel::ctl {

/// What SQLite's quick_check finds first; none when the file at @p path is whole. It reads the whole file.
/// @throws Failure when the file cannot be opened or is locked.
std::optional<std::string> damageInSettings(const std::string& path);

/// The value of a row: none, an integer or bytes, as the file has it.
using StoredValue = std::variant<std::monostate, std::int64_t, std::string>;

/// A row of one of the four tables: its key's bytes, terminator and all, and its value.
struct SettingsRow {
    std::string key;
    StoredValue value;

    bool operator==(const SettingsRow&) const = default;
};

/// What one table has that can be read.
struct SavedTable {
    std::string name;
    std::vector<SettingsRow> rows; ///< in the file's order; each key once
    bool isSound = false;          ///< no page of it is broken, so that nothing can be missing
    std::size_t unreadable = 0;    ///< places at which the file is broken
    std::size_t added = 0;         ///< how many of the rows come from elsewhere
};

/// Reads every row of the four tables that can be reached, past the pages that are broken. Nothing is changed. A table
/// that cannot be used at all has no rows and one unreadable place.
/// @throws Failure when the file cannot be opened or is locked.
std::vector<SavedTable> saveSettings(const std::string& path);

/// Adds to the tables that are not sound, behind what they have, the rows of @p known whose keys they lack. Of a
/// password that is no text of the site's own cipher nothing is known.
void addKnownSettings(std::vector<SavedTable>& tables, const settings::SettingsSnapshot& known);

/// Puts a file of these rows in the place of the one at @p path, which is set aside with what SQLite put beside it.
/// Called as the file's owner. The daemon may run: what it changes at that instant may be lost with the old file.
/// @return the name under which the old file stays.
/// @throws Failure; the old file is then still in its place.
std::string replaceSettings(const std::string& path, const std::vector<SavedTable>& tables, SettingsReaders readers);

} // namespace Sentrel::ctl
