#include "base/Database.h"

namespace Sentrel {
namespace {

constexpr int kPrimaryCodeMask = 0xFF;

void check(sqlite3& database, int result) {
    if (result != SQLITE_OK) {
        throw DatabaseError(result & kPrimaryCodeMask, sqlite3_system_errno(&database), sqlite3_errmsg(&database));
    }
}

DatabasePtr open(const std::string& path, int access) {
    sqlite3* opened = nullptr;
    const int flags = access | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_NOMUTEX;
    const int result = sqlite3_open_v2(path.c_str(), &opened, flags, nullptr);
    DatabasePtr database(opened);
    if (database == nullptr) {
        throw DatabaseError(SQLITE_NOMEM, 0, sqlite3_errstr(SQLITE_NOMEM));
    }
    check(*database, result);
    return database;
}

} // namespace

DatabasePtr openDatabase(const std::string& path) {
    return open(path, SQLITE_OPEN_READWRITE);
}

DatabasePtr openDatabaseReadOnly(const std::string& path) {
    return open(path, SQLITE_OPEN_READONLY);
}

void setLockWait(sqlite3& database, std::chrono::milliseconds wait) {
    check(database, sqlite3_busy_timeout(&database, static_cast<int>(wait.count())));
}

void execute(sqlite3& database, const char* sql) {
    check(database, sqlite3_exec(&database, sql, nullptr, nullptr, nullptr));
}

std::int64_t queryInteger(sqlite3& database, const char* sql) {
    Statement statement(database, sql);
    return statement.step() ? statement.integer(0) : 0;
}

std::int64_t lastInsertedRow(sqlite3& database) {
    return sqlite3_last_insert_rowid(&database);
}

bool emptyWriteAheadLog(sqlite3& database) noexcept {
    return sqlite3_wal_checkpoint_v2(&database, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr) == SQLITE_OK;
}

Statement::Statement(sqlite3& database, const char* sql) : m_database(database) {
    sqlite3_stmt* prepared = nullptr;
    check(database, sqlite3_prepare_v3(&database, sql, -1, SQLITE_PREPARE_PERSISTENT, &prepared, nullptr));
    m_statement.reset(prepared);
}

void Statement::bind(int position, std::int64_t value) {
    check(m_database, sqlite3_bind_int64(m_statement.get(), position, value));
}

void Statement::bind(int position, std::string_view bytes) {
    // A null pointer would be stored as NULL; an empty text is an empty blob.
    const char* data = bytes.data() != nullptr ? bytes.data() : "";
    check(m_database, sqlite3_bind_blob64(m_statement.get(), position, data, bytes.size(), SQLITE_STATIC));
}

bool Statement::step() {
    const int result = sqlite3_step(m_statement.get());
    if (result != SQLITE_ROW && result != SQLITE_DONE) {
        check(m_database, result);
    }
    return result == SQLITE_ROW;
}

std::int64_t Statement::integer(int column) {
    return sqlite3_column_int64(m_statement.get(), column);
}

std::string_view Statement::bytes(int column) {
    const void* data = sqlite3_column_blob(m_statement.get(), column);
    const int size = sqlite3_column_bytes(m_statement.get(), column);
    return data != nullptr ? std::string_view(static_cast<const char*>(data), static_cast<std::size_t>(size))
                           : std::string_view();
}

void Statement::reset() noexcept {
    // The result repeats that of the last step, which has been thrown already.
    static_cast<void>(sqlite3_reset(m_statement.get()));
    static_cast<void>(sqlite3_clear_bindings(m_statement.get()));
}

ReadTransaction::ReadTransaction(sqlite3& database) : m_database(database) {
    execute(database, "BEGIN");
}

ReadTransaction::~ReadTransaction() {
    // Nothing was written, so there is nothing that could fail to be stored.
    static_cast<void>(sqlite3_exec(&m_database, "ROLLBACK", nullptr, nullptr, nullptr));
}

WriteTransaction::WriteTransaction(sqlite3& database) : m_database(database) {
    execute(database, "BEGIN IMMEDIATE");
}

WriteTransaction::~WriteTransaction() {
    if (sqlite3_get_autocommit(&m_database) == 0) {
        // A rollback that fails leaves a connection that the caller closes; the file is whole either way.
        static_cast<void>(sqlite3_exec(&m_database, "ROLLBACK", nullptr, nullptr, nullptr));
    }
}

void WriteTransaction::commit() {
    execute(m_database, "COMMIT");
}

} // namespace Sentrel
