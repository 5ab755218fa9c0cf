#include "store/SQLite.h"

#include <boost/thread/lock_guard.hpp>

#include <sqlite3.h>
#include <unistd.h>

boost::mutex CSQLiteDBConnection::m_instanceMutex;

namespace {

constexpr int kOpenAttempts = 11;
constexpr int kBusyWaits = 10; // a statement waits at most a second for a lock
constexpr useconds_t kBusyWaitMicroseconds = 100'000;

void closeHandle(sqlite3*& database) {
    if (database != nullptr && sqlite3_close(database) == SQLITE_OK) {
        database = nullptr;
    }
}

} // namespace

CSQLiteDBConnection::~CSQLiteDBConnection() {
    Close();
}

bool CSQLiteDBConnection::Open(const char* path) {
    Close();
    for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
        const int result = sqlite3_open(path, &m_pDB);
        if (result == SQLITE_OK) {
            sqlite3_busy_handler(m_pDB, OnDBBusy, nullptr);
            return true;
        }
        if (result != SQLITE_BUSY) {
            return false;
        }
        usleep(kBusyWaitMicroseconds);
    }
    return false;
}

void CSQLiteDBConnection::Close() {
    try {
        const boost::lock_guard<boost::mutex> lock(m_instanceMutex);
        closeHandle(m_pDB);
    } catch (...) { // only taking the lock throws
        closeHandle(m_pDB);
    }
}

int CSQLiteDBConnection::OnDBBusy(void* /*userData*/, int count) {
    if (count >= kBusyWaits) {
        return 0;
    }
    usleep(kBusyWaitMicroseconds);
    return 1;
}

int CSQLiteDBConnection::GetLastError() const {
    return m_pDB == nullptr ? SQLITE_NOMEM : sqlite3_errcode(m_pDB);
}

bool CSQLiteDBConnection::ExecuteSQL(const char* sql) {
    return m_pDB != nullptr && sqlite3_exec(m_pDB, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

CSQLiteRowSet::~CSQLiteRowSet() {
    Close();
}

// The plain form on purpose: the code of a failed step shows at the next Reset, and a statement from before a change
// of the schema fails instead of being prepared anew.
bool CSQLiteRowSet::Open(const CSQLiteDBConnection& connection, const char* sql, unsigned long length) {
    Close();
    return sqlite3_prepare(connection.m_pDB, sql, static_cast<int>(length), &m_pStmt, nullptr) == SQLITE_OK;
}

void CSQLiteRowSet::Close() {
    if (m_pStmt != nullptr) {
        sqlite3_finalize(m_pStmt);
        m_pStmt = nullptr;
    }
}

bool CSQLiteRowSet::BindText(int parameter, const char* text, unsigned long length) {
    return sqlite3_bind_text(m_pStmt, parameter, text, static_cast<int>(length), SQLITE_STATIC) == SQLITE_OK;
}

bool CSQLiteRowSet::BindBlob(int parameter, const void* bytes, unsigned long length) {
    return sqlite3_bind_blob(m_pStmt, parameter, bytes, static_cast<int>(length), SQLITE_STATIC) == SQLITE_OK;
}

bool CSQLiteRowSet::BindInt(int parameter, int value) {
    return sqlite3_bind_int(m_pStmt, parameter, value) == SQLITE_OK;
}

bool CSQLiteRowSet::Reset() {
    m_bHasRow = false;
    return sqlite3_reset(m_pStmt) == SQLITE_OK;
}

bool CSQLiteRowSet::Execute() {
    const int result = sqlite3_step(m_pStmt);
    m_bHasRow = result == SQLITE_ROW;
    return result >= 0;
}

bool CSQLiteRowSet::Changed(const CSQLiteDBConnection& connection) const {
    return sqlite3_changes(connection.m_pDB) != 0;
}

std::pair<const void*, int> CSQLiteRowSet::GetColBlob(int column) const {
    const void* bytes = sqlite3_column_blob(m_pStmt, column);
    return {bytes, sqlite3_column_bytes(m_pStmt, column)};
}

// The text first: asking for it may convert the column, and the size is that of what was asked for last.
std::pair<const unsigned char*, int> CSQLiteRowSet::GetColText(int column) const {
    const unsigned char* text = sqlite3_column_text(m_pStmt, column);
    return {text, sqlite3_column_bytes(m_pStmt, column)};
}

int CSQLiteRowSet::GetColInt(int column) const {
    return sqlite3_column_int(m_pStmt, column);
}
