// One opening of the settings file: a connection and its statements, made for one operation and closed at its end.
//
// Each of the four tables has three statements: read one row, write one, empty the table. They are made in the
// constructor without SQL and prepared in Init. When a reading statement cannot be prepared, its table is missing: with
// `fix` the table is made (sentrelctl asks for that), and without it Init succeeds all the same with the statements
// that there are, so that the daemon starts on its defaults with a file that nobody has laid out yet.
//
// What must stay so:
// - No transaction: each statement is committed by itself, since other programs read the file at any time.
// - A statement that has given its row is reset at once. While it is on the row, it keeps the file locked against
//   others, and our own next write would meet theirs without a wait.
// - Statements end before the connection, or SQLite keeps the file open.
// - An exception counts as done, with a trace line: no caller could do more, and the daemon goes on.
#include "store/DBSettings.h"

#include "daemon/Trace.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <array>
#include <cstring>
#include <memory>

namespace dbSettingsLog {
namespace {

void traceException(const char* operation) {
    ST_TRACE(safariPluginFlow, 1, L"Exception in CVXDBSettings::%s\n", operation);
}

} // namespace
} // namespace dbSettingsLog

namespace {

constexpr int kTables = 4;
constexpr mode_t kDirectoryMode = 0777; // the umask decides

using dbSettingsLog::traceException;

/// Runs @p work and returns its result. An exception is traced, and counts as success.
template <class Work>
bool runAndTrace(const char* operation, Work work) {
    try {
        return work();
    } catch (...) {
        traceException(operation);
        return true;
    }
}

CSQLiteRowSet* find(const std::map<int, CSQLiteRowSet*>& rowSets, int tableType) {
    const auto found = rowSets.find(tableType);
    return found == rowSets.end() ? nullptr : found->second;
}

bool open(CSQLiteRowSet& rowSet, const CSQLiteDBConnection& connection, const std::string& sql) {
    return rowSet.Open(connection, sql.c_str(), sql.size());
}

unsigned long lengthOf(const char* name, unsigned long given) {
    return given == 0 ? std::strlen(name) : given;
}

/// The text of a column; an absent one is empty.
std::string textOf(const CSQLiteRowSet& rowSet, int column) {
    const auto [text, length] = rowSet.GetColText(column);
    return text == nullptr ? std::string() : std::string(reinterpret_cast<const char*>(text), std::size_t(length));
}

/// The name of a row, which may have been stored with its NUL.
std::string nameOf(const CSQLiteRowSet& rowSet) {
    const std::string name = textOf(rowSet, 0);
    return name.substr(0, name.find('\0'));
}

/// Calls @p take with every row of @p sql. False when it cannot be prepared.
template <class Take>
bool forEachRow(const CSQLiteDBConnection& connection, const std::string& sql, Take take) {
    CSQLiteRowSet rowSet;
    if (!open(rowSet, connection, sql)) {
        return false;
    }
    while (rowSet.Execute() && rowSet.m_bHasRow) {
        take(rowSet);
    }
    return true;
}

} // namespace

CVXDBSettings::CVXDBSettings() {
    try {
        for (RowSets* rowSets : {&m_getRowSets, &m_setRowSets, &m_deleteRowSets}) {
            for (int type = 0; type < kTables; ++type) {
                auto rowSet = std::make_unique<CSQLiteRowSet>();
                rowSets->emplace(type, rowSet.get());
                static_cast<void>(rowSet.release()); // the map owns it now
            }
        }
    } catch (...) {
        traceException("CVXDBSettings");
    }
}

// The statements before the handle: SQLite does not close one that still has some.
CVXDBSettings::~CVXDBSettings() {
    try {
        Close();
        for (const RowSets* rowSets : {&m_getRowSets, &m_setRowSets, &m_deleteRowSets}) {
            for (const auto& [type, rowSet] : *rowSets) {
                delete rowSet;
            }
        }
        CSQLiteDBConnection::Close();
    } catch (...) {
        traceException("~CVXDBSettings");
    }
}

bool CVXDBSettings::Init(const char* path, bool fix) {
    if (path == nullptr || !openOrMakeDirectory(path)) {
        return false;
    }
    return runAndTrace("Init", [&] { return prepareAll(fix); });
}

void CVXDBSettings::Close() {
    try {
        m_bCreating = false;
        for (const auto& [type, rowSet] : m_setRowSets) {
            rowSet->Close();
        }
    } catch (...) {
        traceException("Close");
    }
}

bool CVXDBSettings::Create() {
    if (m_bCreating) {
        return false;
    }
    m_bCreating = true; // and stays so after a failure: what failed once is not tried again
    if (!hasHandle()) {
        return false;
    }
    const bool created = runAndTrace(
        "Create", [&] { return prepareOrFixGets() && prepareEach(m_setRowSets, &IQueryInterface::GenerateSetQuery); });
    m_bCreating = !created;
    return created;
}

bool CVXDBSettings::FixDatabase(int tableType) {
    if (GetLastError() != SQLITE_ERROR) {
        return false;
    }
    return runAndTrace("FixDatabase", [&] {
        return ExecuteSQL(queryText(tableType, &IQueryInterface::GenerateCreateQuery).c_str()) &&
               prepare(m_getRowSets, tableType, &IQueryInterface::GenerateGetQuery);
    });
}

bool CVXDBSettings::openOrMakeDirectory(const char* path) {
    if (CSQLiteDBConnection::Open(path)) {
        return true;
    }
    std::array<char, 256> directory{};
    const std::size_t length = std::strlen(path);
    if (GetLastError() != SQLITE_CANTOPEN || length < 1 || length >= directory.size()) {
        return false;
    }
    std::memcpy(directory.data(), path, length);
    for (std::size_t end = length; end > 0 && directory[end - 1] != '/'; --end) {
        directory[end - 1] = '\0';
    }
    return directory[0] != '\0' && mkdir(directory.data(), kDirectoryMode) == 0 && CSQLiteDBConnection::Open(path);
}

bool CVXDBSettings::prepare(const RowSets& rowSets, int tableType, Query query) {
    CSQLiteRowSet* rowSet = find(rowSets, tableType);
    return rowSet != nullptr && open(*rowSet, *this, queryText(tableType, query));
}

bool CVXDBSettings::prepareEach(const RowSets& rowSets, Query query) {
    for (const auto& [type, rowSet] : rowSets) {
        if (!prepare(rowSets, type, query)) {
            return false;
        }
    }
    return true;
}

bool CVXDBSettings::prepareOrFixGets() {
    for (const auto& [type, rowSet] : m_getRowSets) {
        if (!prepare(m_getRowSets, type, &IQueryInterface::GenerateGetQuery) && !FixDatabase(type)) {
            return false;
        }
    }
    return true;
}

bool CVXDBSettings::prepareAll(bool fix) {
    if (fix) {
        if (!prepareOrFixGets()) {
            return false;
        }
    } else if (!prepareEach(m_getRowSets, &IQueryInterface::GenerateGetQuery)) {
        return true; // so that the daemon starts on its defaults with a file that nobody has laid out yet
    }
    if (prepareEach(m_setRowSets, &IQueryInterface::GenerateSetQuery) &&
        prepareEach(m_deleteRowSets, &IQueryInterface::GenerateDeleteQuery)) {
        return true;
    }
    Close();
    return false;
}

bool CVXDBSettings::Get(const char* name, unsigned long nameLength, void* buffer, unsigned long bufferSize,
                        unsigned long* size, TableType type) {
    CSQLiteRowSet* rowSet = find(m_getRowSets, type);
    if (rowSet == nullptr || name == nullptr || !rowSet->Reset() ||
        !rowSet->BindText(1, name, lengthOf(name, nameLength)) || !rowSet->Execute() || !rowSet->m_bHasRow) {
        return false;
    }
    const auto [value, length] = rowSet->GetColBlob(0);
    const auto valueSize = static_cast<unsigned long>(length);
    if (buffer != nullptr && valueSize <= bufferSize) {
        if (valueSize > 0) {
            std::memcpy(buffer, value, valueSize);
        }
        // A statement that stands on a row keeps the file locked against others, and our own writes would then meet
        // theirs without a wait. The result of Reset is about the step, which gave a row.
        static_cast<void>(rowSet->Reset());
        return true;
    }
    if (size != nullptr) {
        *size = valueSize;
    }
    return false;
}

CSQLiteRowSet* CVXDBSettings::setRowSet(TableType type) {
    CSQLiteRowSet* rowSet = find(m_setRowSets, type);
    return rowSet == nullptr && Create() ? find(m_setRowSets, type) : rowSet;
}

bool CVXDBSettings::Set(const char* name, unsigned long nameLength, const void* value, unsigned long valueLength,
                        TableType type) {
    CSQLiteRowSet* rowSet = setRowSet(type);
    if (rowSet == nullptr || value == nullptr || name == nullptr || valueLength == 0) {
        return false;
    }
    return rowSet->Reset() && rowSet->BindText(1, name, lengthOf(name, nameLength)) &&
           rowSet->BindBlob(2, value, valueLength) && rowSet->Execute();
}

bool CVXDBSettings::Set(std::string name, int value, TableType type) {
    CSQLiteRowSet* rowSet = setRowSet(type);
    return rowSet != nullptr && !name.empty() && rowSet->Reset() && rowSet->BindText(1, name.data(), name.size()) &&
           rowSet->BindInt(2, value) && rowSet->Execute();
}

bool CVXDBSettings::Set(std::string name, TableType type) {
    CSQLiteRowSet* rowSet = setRowSet(type);
    return rowSet != nullptr && !name.empty() && rowSet->Reset() && rowSet->BindText(1, name.data(), name.size()) &&
           rowSet->Execute();
}

bool CVXDBSettings::Delete(TableType type) {
    CSQLiteRowSet* rowSet = find(m_deleteRowSets, type);
    return rowSet != nullptr && rowSet->Execute();
}

bool CVXDBSettings::GetAllRows(TableType type, Rows& out, bool ascending) {
    out.clear();
    if (type == TABLE_PRIVATE_IP_RANGE) {
        return false;
    }
    const std::string sql = type == TABLE_ALLOW_BLOCK ? allowBlockRowsQuery(ascending)
                                                      : queryText(type, &IQueryInterface::GenerateGetAllRowsQuery);
    return forEachRow(*this, sql,
                      [&](const CSQLiteRowSet& row) { out.emplace_hint(out.end(), nameOf(row), row.GetColInt(1)); });
}

bool CVXDBSettings::GetPrivateRangeList(std::list<std::string>& out) {
    const std::string sql = queryText(TABLE_PRIVATE_IP_RANGE, &IQueryInterface::GenerateGetAllRowsQuery);
    forEachRow(*this, sql, [&](const CSQLiteRowSet& row) { out.push_back(textOf(row, 0)); });
    return false;
}

std::multimap<std::string, std::string> CVXDBSettings::GetProxyStrings() {
    std::multimap<std::string, std::string> strings;
    const std::string sql = queryText(TABLE_GENERAL_SETTING, &IQueryInterface::GenerateGetAllRowsQuery);
    forEachRow(*this, sql, [&](const CSQLiteRowSet& row) {
        const std::string name = nameOf(row);
        std::string value = textOf(row, 1);
        if ((name == "RPXProxyHost" || name == "HttpAuthUname" || name == "HttpAuthPass") && !value.empty()) {
            strings.emplace(name, std::move(value));
        }
    });
    return strings;
}
