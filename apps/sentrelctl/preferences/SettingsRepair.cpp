// Saving what a damaged settings file still holds.
//
// SQLite ends a scan at the first broken page. Rows are therefore looked up one by one by their number in the file:
// each look-up goes its own way through the pages, so only the rows of the broken ones are missing. The index of a
// table gives the keys of those again, which is all there is to a private range.
//
// What must stay so:
// - Nothing is written into the old file. It is moved, and what SQLite put beside it moves before it: a write-ahead log
//   that stayed would be applied to the new file.
// - The new file is whole, synced and in its form before it takes the place, which it does in one step: without a
//   settings file the daemon would start with the first values.
#include "apps/sentrelctl/preferences/SettingsRepair.h"

#include "apps/sentrelctl/preferences/SettingsTables.h"
#include "apps/sentrelctl/terminal/Failure.h"
#include "base/Database.h"
#include "base/SettingsHandover.h"
#include "platform/settings/SettingsKeys.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <string_view>
#include <system_error>
#include <unistd.h>
#include <unordered_set>

namespace Sentrel::ctl {
namespace {

constexpr const char* kCannotRepair = "cannot repair the settings file";
constexpr std::chrono::seconds kRepairWait{2};
/// Row numbers that are tried at the most: ten times what the lists may hold. A broken page can claim any number.
constexpr std::int64_t kMaxRowNumber = 1'000'000;

struct TableForm {
    const char* name;
    const char* key;
    const char* value; ///< null when the key is the whole row
};
constexpr std::array<TableForm, 4> kTableForms{{
    {"vxsetting", "name", "value"},
    {"catblockinginfo", "name", "value"},
    {"allowblocksettings", "name", "value"},
    {"privateIPRange", "range", nullptr},
}};

Failure repairFailure(const std::string& path, std::string why, std::string nextStep) {
    return {ExitCode::Failed, kCannotRepair, path, std::move(why), std::move(nextStep)};
}

DatabasePtr opened(const std::string& path) {
    if (::access(path.c_str(), R_OK) != 0 && errno == EACCES) {
        throw fileFailure(kCannotRepair, path, EACCES);
    }
    try {
        DatabasePtr database = openDatabase(path);
        setLockWait(*database, kRepairWait);
        return database;
    } catch (const DatabaseError& error) {
        throw repairFailure(path, error.what(), "See whether it is there and a file: 'sentrelctl doctor'");
    }
}

/// A lock says nothing about what is broken: whoever holds it is done sometime.
bool isLocked(const DatabaseError& error) {
    return error.code() == SQLITE_BUSY || error.code() == SQLITE_LOCKED;
}

Failure lockedFailure(const std::string& path) {
    return repairFailure(path, "another process holds it", "Try again when the other one is done");
}

/// Takes the rows that one query gives until it ends or meets a broken page. @return whether it ended. @throws
/// DatabaseError when the file is locked.
template <class Take>
bool eachRow(Statement& statement, const Take& take) {
    const StatementUse use(statement);
    try {
        while (statement.step()) {
            take(statement);
        }
        return true;
    } catch (const DatabaseError& error) {
        if (isLocked(error)) {
            throw;
        }
        return false;
    }
}

SettingsRow rowOf(Statement& statement, bool hasValue) {
    SettingsRow row{std::string(statement.bytes(0)), {}};
    if (hasValue && statement.bytes(2) == "integer") {
        row.value = statement.integer(1);
    } else if (hasValue && statement.bytes(2) != "null") {
        row.value = std::string(statement.bytes(1));
    }
    return row;
}

/// The columns of a row: the key's bytes, and the value with its type. The unary plus keeps SQLite away from the index.
std::string columnsOf(const TableForm& form) {
    return form.value == nullptr ? fmt::format("cast(+{} as blob)", form.key)
                                 : fmt::format("cast(+{0} as blob), {1}, typeof({1})", form.key, form.value);
}

std::int64_t lastRowNumber(sqlite3& database, const TableForm& form) {
    try {
        const std::int64_t last =
            queryInteger(database, fmt::format("select max(rowid) from {} not indexed", form.name).c_str());
        return std::clamp(last, std::int64_t{0}, kMaxRowNumber);
    } catch (const DatabaseError& error) {
        if (isLocked(error)) {
            throw;
        }
        return kMaxRowNumber;
    }
}

/// Reads a table from one end to the other; past a broken page, row by row.
void readRows(sqlite3& database, const TableForm& form, SavedTable& table) {
    Statement scan(database, fmt::format("select {} from {} not indexed", columnsOf(form), form.name).c_str());
    const auto take = [&](Statement& row) { table.rows.push_back(rowOf(row, form.value != nullptr)); };
    if (eachRow(scan, take)) {
        return;
    }
    table.rows.clear();
    Statement lookUp(database,
                     fmt::format("select {} from {} not indexed where rowid=?", columnsOf(form), form.name).c_str());
    bool wasBroken = false;
    for (std::int64_t number = 1, last = lastRowNumber(database, form); number <= last; ++number) {
        lookUp.bind(1, number);
        const bool isBroken = !eachRow(lookUp, take);
        table.unreadable += isBroken && !wasBroken ? 1 : 0;
        wasBroken = isBroken;
    }
}

/// Adds to @p table those of @p known whose keys it lacks, behind the others.
void addMissingRows(SavedTable& table, const std::vector<SettingsRow>& known) {
    std::unordered_set<std::string> there;
    for (const SettingsRow& row : table.rows) {
        there.insert(row.key);
    }
    for (const SettingsRow& row : known) {
        if (there.insert(row.key).second) {
            table.rows.push_back(row);
            ++table.added;
        }
    }
}

/// A number as the file has it, in the machine's order of bytes.
std::string fourBytes(std::int32_t number) {
    return {reinterpret_cast<const char*>(&number), sizeof number};
}

/// The key of a single setting is stored with its terminator.
void addSetting(std::vector<SettingsRow>& rows, const std::string& key, const std::optional<std::string>& value) {
    if (value) {
        rows.push_back({key + '\0', *value});
    }
}

void addSetting(std::vector<SettingsRow>& rows, const std::string& key, std::optional<std::int32_t> value) {
    addSetting(rows, key, value ? std::optional(fourBytes(*value)) : std::nullopt);
}

std::vector<SettingsRow> singleSettingsIn(const settings::SettingsSnapshot& known) {
    std::vector<SettingsRow> rows;
    for (const auto& [key, number] : known.numbers) {
        addSetting(rows, key, number);
    }
    addSetting(rows, settings::kProxyHostKey, known.proxy.host);
    addSetting(rows, settings::kProxyUserKey, known.proxy.user);
    addSetting(rows, settings::kProxyPasswordKey, known.proxy.cipheredPassword);
    addSetting(rows, settings::kProxyPortKey, known.proxy.port);
    addSetting(rows, settings::kProxyTypeKey, known.proxy.type);
    addSetting(rows, settings::kProxyAuthenticationKey, known.proxy.authentication);
    return rows;
}

/// The rows of one table, as a snapshot of the file has them.
std::vector<SettingsRow> rowsIn(const settings::SettingsSnapshot& known, std::string_view table) {
    std::vector<SettingsRow> rows;
    if (table == "vxsetting") {
        rows = singleSettingsIn(known);
    } else if (table == "catblockinginfo") {
        for (const settings::ListEntry& entry : known.categories) {
            rows.push_back({entry.name, fourBytes(entry.value)});
        }
    } else if (table == "allowblocksettings") {
        for (const settings::ListEntry& entry : known.allowBlock) {
            rows.push_back({entry.name, std::int64_t{entry.value}});
        }
    } else {
        for (const std::string& range : known.privateRanges) {
            rows.push_back({range, {}});
        }
    }
    return rows;
}

/// The keys that the table's index has and its readable rows have not, for a table that is nothing but keys.
void readKeys(sqlite3& database, const TableForm& form, SavedTable& table) {
    std::vector<SettingsRow> keys;
    Statement scan(database,
                   fmt::format("select cast({0} as blob) from {1} order by {0}", form.key, form.name).c_str());
    eachRow(scan, [&](Statement& row) { keys.push_back({std::string(row.bytes(0)), {}}); });
    const std::size_t before = table.added;
    addMissingRows(table, keys);
    table.added = before; // they come from this very file
}

bool isSoundTable(sqlite3& database, const TableForm& form) {
    Statement check(database, fmt::format("pragma quick_check({})", form.name).c_str());
    return check.step() && check.bytes(0) == "ok";
}

SavedTable saved(sqlite3& database, const TableForm& form) {
    SavedTable table;
    table.name = form.name;
    try {
        readRows(database, form, table);
        table.isSound = table.unreadable == 0 && isSoundTable(database, form);
        if (form.value == nullptr && table.unreadable > 0) {
            readKeys(database, form, table);
        }
    } catch (const DatabaseError& error) {
        if (isLocked(error)) {
            throw;
        }
        ++table.unreadable; // not even a statement: the table is missing, or the file's first page is broken
    }
    return table;
}

void insertRows(sqlite3& database, const SavedTable& table) {
    const auto* const form = std::find_if(kTableForms.begin(), kTableForms.end(), [&](const TableForm& each) {
        return each.name == std::string_view(table.name);
    });
    Statement insert(database, fmt::format("insert or replace into {} values (cast(? as text){})", form->name,
                                           form->value == nullptr ? "" : ",?")
                                   .c_str());
    for (const SettingsRow& row : table.rows) {
        const StatementUse use(insert);
        insert.bind(1, std::string_view(row.key));
        if (const auto* const number = std::get_if<std::int64_t>(&row.value)) {
            insert.bind(2, *number);
        } else if (const auto* const bytes = std::get_if<std::string>(&row.value)) {
            insert.bind(2, std::string_view(*bytes));
        }
        while (insert.step()) {
        }
    }
}

/// Gives the file a second name that ends in @p ending, and moves what is beside it there. The file keeps its own name
/// until the new one takes it, so that a settings file is there whenever this stops.
void setAside(const std::string& path, const std::string& ending) {
    if (::link(path.c_str(), (path + ending).c_str()) != 0) {
        throw std::system_error(errno, std::generic_category(), path + ending);
    }
    for (const char* side : {"-wal", "-shm", "-journal"}) {
        const std::string from = path + side;
        if (::rename(from.c_str(), (path + ending + side).c_str()) != 0 && errno != ENOENT) {
            throw std::system_error(errno, std::generic_category(), from);
        }
    }
}

void makeFile(const std::string& path, const std::vector<SavedTable>& tables, SettingsReaders readers) {
    setUpSettingsFile(path, readers);
    const DatabasePtr database = openDatabase(path);
    WriteTransaction transaction(*database);
    for (const SavedTable& table : tables) {
        insertRows(*database, table);
    }
    transaction.commit();
    emptyWriteAheadLog(*database);
}

/// What the write-ahead log still has belongs to the old file; a damaged one may not take it.
void emptyLogOf(const std::string& path) {
    try {
        emptyWriteAheadLog(*opened(path));
    } catch (const Failure&) {
        // It moves beside the file then.
    }
}

} // namespace

std::optional<std::string> damageInSettings(const std::string& path) {
    const DatabasePtr database = opened(path);
    try {
        Statement check(*database, "pragma quick_check(1)");
        std::string finding = check.step() ? std::string(check.bytes(0)) : std::string("it cannot be checked");
        std::replace(finding.begin(), finding.end(), '\n', ' ');
        return finding == "ok" ? std::nullopt : std::optional(std::move(finding));
    } catch (const DatabaseError& error) {
        if (isLocked(error)) {
            throw lockedFailure(path);
        }
        return error.what();
    }
}

std::vector<SavedTable> saveSettings(const std::string& path) {
    const DatabasePtr database = opened(path);
    std::vector<SavedTable> tables;
    tables.reserve(kTableForms.size());
    try {
        for (const TableForm& form : kTableForms) {
            tables.push_back(saved(*database, form));
        }
    } catch (const DatabaseError&) {
        throw lockedFailure(path);
    }
    return tables;
}

void addKnownSettings(std::vector<SavedTable>& tables, const settings::SettingsSnapshot& known) {
    for (SavedTable& table : tables) {
        if (!table.isSound) { // in a sound one they are missing because somebody took them out
            addMissingRows(table, rowsIn(known, table.name));
        }
    }
}

std::string replaceSettings(const std::string& path, const std::vector<SavedTable>& tables, SettingsReaders readers) {
    const std::string fresh = path + ".new";
    const std::string ending = fmt::format(".broken-{:%Y%m%dT%H%M%SZ}", fmt::gmtime(std::time(nullptr)));
    try {
        for (const char* side : {"", "-wal", "-shm", "-journal"}) {
            std::filesystem::remove(fresh + side); // of an earlier repair that did not end
        }
        makeFile(fresh, tables, readers);
        const SettingsHandover handover(path, kRepairWait);
        emptyLogOf(path);
        setAside(path, ending);
        if (::rename(fresh.c_str(), path.c_str()) != 0) {
            throw std::system_error(errno, std::generic_category(), fresh);
        }
    } catch (const DatabaseError& error) {
        throw repairFailure(fresh, error.what(), "Mend that, and repair again; the old file was not changed");
    } catch (const std::system_error& error) {
        throw repairFailure(path, error.what(), "Mend that, and repair again");
    }
    return path + ending;
}

} // namespace Sentrel::ctl
