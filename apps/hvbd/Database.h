// SQLite with owners and exceptions: what the log store needs of it and no more.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace HVB::hub {

/// A call to SQLite that failed.
/// Threads: a plain value. Owner: whoever catches it.
struct DatabaseError {
    int code;            ///< SQLite's primary result code
    int systemError;     ///< the errno behind it, 0 when there is none
    std::string message; ///< SQLite's own words
};

struct CloseDatabase {
    void operator()(sqlite3* database) const noexcept { sqlite3_close_v2(database); }
};
/// An open database. Threads: one at a time. Owner: the holder; it outlives its statements.
using DatabasePtr = std::unique_ptr<sqlite3, CloseDatabase>;

/// Opens the existing database file at @p path for reading and writing, refusing a symlink anywhere in the path.
/// @throws DatabaseError
DatabasePtr openDatabase(const std::string& path);

/// Runs @p sql, whose results are not looked at. @throws DatabaseError
void execute(sqlite3& database, const char* sql);

/// The first column of the first row of @p sql, 0 when there is none. @throws DatabaseError
std::int64_t queryInteger(sqlite3& database, const char* sql);

/// A prepared statement that is kept and used again and again.
/// Threads: one at a time. Owner: the holder.
class Statement {
public:
    /// @throws DatabaseError when @p sql does not fit the database.
    Statement(sqlite3& database, const char* sql);

    void bind(int position, std::int64_t value);
    /// The bytes are not copied: they must stay until the statement is reset.
    void bind(int position, std::string_view bytes);

    /// Goes to the next row. @return false at the end. @throws DatabaseError
    bool step();

    std::int64_t integer(int column);
    /// The bytes of a column, valid until the next step or reset.
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

/// One use of a kept statement, which is reset at its end however that comes about.
/// Threads: one at a time. Owner: a local.
class Use {
public:
    explicit Use(Statement& statement) : m_statement(statement) {}
    ~Use() { m_statement.reset(); }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;

    Statement* operator->() { return &m_statement; }

private:
    Statement& m_statement;
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

} // namespace HVB::hub
