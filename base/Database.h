// SQLite with owners and exceptions, for the hub and the tools. The daemon's settings store has classes of its own.
#pragma once

#include <sqlite3.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Sentrel {

/// A call to SQLite that failed. Its text is SQLite's own words.
class DatabaseError : public std::runtime_error {
public:
    DatabaseError(int code, int systemError, const std::string& words)
        : std::runtime_error(words), m_code(code), m_systemError(systemError) {}

    /// SQLite's primary result code.
    int code() const { return m_code; }
    /// The errno behind it, 0 when there is none.
    int systemError() const { return m_systemError; }

private:
    int m_code;
    int m_systemError;
};

struct CloseDatabase {
    void operator()(sqlite3* database) const noexcept { sqlite3_close_v2(database); }
};
/// An open database. Threads: one at a time. Owner: the holder; it outlives its statements.
using DatabasePtr = std::unique_ptr<sqlite3, CloseDatabase>;

/// Opens the existing database file at @p path for reading and writing, refusing a symlink anywhere in the path.
/// @throws DatabaseError
DatabasePtr openDatabase(const std::string& path);

/// As openDatabase, for reading alone. In write-ahead mode SQLite still wants to write the files beside it.
DatabasePtr openDatabaseReadOnly(const std::string& path);

/// How long a call waits for a lock that another program holds, before it fails with SQLITE_BUSY. Zero until it is set.
void setLockWait(sqlite3& database, std::chrono::milliseconds wait);

/// Runs @p sql and ignores its rows. @throws DatabaseError
void execute(sqlite3& database, const char* sql);

/// The first column of the first row of @p sql, 0 when there is none. @throws DatabaseError
std::int64_t queryInteger(sqlite3& database, const char* sql);

/// The number of the row that was inserted last.
std::int64_t lastInsertedRow(sqlite3& database);

/// Moves the content of the write-ahead log into the database and empties the log. @return false when other connections
/// or the disk prevent that, and something stays in the log.
bool emptyWriteAheadLog(sqlite3& database) noexcept;

/// A prepared statement that is kept and used again and again.
/// Threads: those of its database, one at a time. Owner: the holder; the database outlives it.
class Statement {
public:
    /// @throws DatabaseError when @p sql does not fit the database.
    Statement(sqlite3& database, const char* sql);

    /// Gives the parameter at @p position, counted from 1, its value until the statement is reset.
    /// @throws DatabaseError when there is no such parameter.
    void bind(int position, std::int64_t value);
    /// As a blob. The bytes are not copied: they must stay until the statement is reset.
    void bind(int position, std::string_view bytes);

    /// Goes to the next row. @return false at the end. @throws DatabaseError
    bool step();

    /// A column of the row, counted from 0; 0 when it is NULL or no number.
    std::int64_t integer(int column);
    /// The bytes of a column, valid until the next step or reset; empty when it is NULL.
    std::string_view bytes(int column);

    /// Makes the statement ready for its next use, and releases what it holds of the database.
    void reset() noexcept;

private:
    struct Finalize {
        void operator()(sqlite3_stmt* statement) const noexcept { sqlite3_finalize(statement); }
    };

    sqlite3& m_database;
    std::unique_ptr<sqlite3_stmt, Finalize> m_statement;
};

/// One use of a kept statement. The statement is reset when the use ends, also when an exception ends it.
/// Threads: one at a time. Owner: a local.
class StatementUse {
public:
    explicit StatementUse(Statement& statement) : m_statement(statement) {}
    ~StatementUse() { m_statement.reset(); }
    StatementUse(const StatementUse&) = delete;
    StatementUse& operator=(const StatementUse&) = delete;

    Statement* operator->() { return &m_statement; }

private:
    Statement& m_statement;
};

/// One state of the database for several statements. It holds writers up in no mode but that of the rollback journal,
/// and in write-ahead mode keeps the log from starting anew: end it soon.
/// Threads: one at a time. Owner: a local; the database outlives it, and its statements have ended or are reset before.
class ReadTransaction {
public:
    /// @throws DatabaseError
    explicit ReadTransaction(sqlite3& database);
    ~ReadTransaction();
    ReadTransaction(const ReadTransaction&) = delete;
    ReadTransaction& operator=(const ReadTransaction&) = delete;

private:
    sqlite3& m_database;
};

/// A write transaction that is rolled back unless it was committed.
/// Threads: one at a time. Owner: a local; the database outlives it.
class WriteTransaction {
public:
    /// Takes the write lock at once. @throws DatabaseError when another program holds it.
    explicit WriteTransaction(sqlite3& database);
    ~WriteTransaction();
    WriteTransaction(const WriteTransaction&) = delete;
    WriteTransaction& operator=(const WriteTransaction&) = delete;

    /// @throws DatabaseError; nothing is written then.
    void commit();

private:
    sqlite3& m_database;
};

} // namespace Sentrel
