// The two classes that call SQLite.
#pragma once

#include <boost/thread/mutex.hpp>

#include <utility>

struct sqlite3;
struct sqlite3_stmt;

/// Owns one database handle.
/// Threads: one at a time. Close is serialised across all connections. Owner: whoever built it; it must outlive the row
/// sets that were opened on it.
class CSQLiteDBConnection {
public:
    CSQLiteDBConnection() = default;
    ~CSQLiteDBConnection();
    CSQLiteDBConnection(const CSQLiteDBConnection&) = delete;
    CSQLiteDBConnection& operator=(const CSQLiteDBConnection&) = delete;

    /// Closes what is open, then opens the file at @p path and installs the busy handler. A busy database is tried
    /// again for 1.1 seconds. After a failure the handle stays, so that GetLastError can say why.
    bool Open(const char* path);

    /// Closes the handle. One that SQLite refuses to close stays.
    void Close();

    /// The busy handler: waits 100 milliseconds, ten times, then gives up. @return 1 to try again, otherwise 0.
    static int OnDBBusy(void* userData, int count);

    /// SQLite's code of the last call on the handle; 7 (SQLITE_NOMEM) without one.
    int GetLastError() const;

    /// Runs @p sql to its end. False without a handle and on any error.
    bool ExecuteSQL(const char* sql);

protected:
    bool hasHandle() const { return m_pDB != nullptr; }

private:
    friend class CSQLiteRowSet;

    sqlite3* m_pDB = nullptr; // null until opened, and again only after a close that SQLite accepted
    static boost::mutex m_instanceMutex;
};

/// Owns one prepared statement.
/// Use: Open once; then Reset, the binds, Execute, and while m_bHasRow is true the GetCol operations and Execute again.
/// Threads: one at a time. Owner: whoever built it. It must end before its connection, which it does not hold on to.
class CSQLiteRowSet {
public:
    CSQLiteRowSet() = default;
    ~CSQLiteRowSet();
    CSQLiteRowSet(const CSQLiteRowSet&) = delete;
    CSQLiteRowSet& operator=(const CSQLiteRowSet&) = delete;

    /// Prepares @p sql, of @p length bytes, in place of the statement held. After a failure none is held.
    bool Open(const CSQLiteDBConnection& connection, const char* sql, unsigned long length);
    /// Gives the statement back. Does nothing without one.
    void Close();

    /// The binds count parameters from 1. The bytes are not copied: the caller keeps them until the statement was
    /// stepped. False without a statement.
    bool BindText(int parameter, const char* text, unsigned long length);
    bool BindBlob(int parameter, const void* bytes, unsigned long length);
    bool BindInt(int parameter, int value);

    /// Makes the statement ready for its next use; the bindings stay. False also means that the last Execute failed.
    /// True without a statement.
    bool Reset();

    /// One step. Only a negative result is false: a write that SQLite refused shows as true without a row, and so does
    /// a step without a statement.
    bool Execute();

    /// Whether the last change on @p connection touched a row.
    bool Changed(const CSQLiteDBConnection& connection) const;

    /// The columns count from 0. The bytes belong to SQLite, until the next Execute, Reset or Close.
    std::pair<const void*, int> GetColBlob(int column) const;
    std::pair<const unsigned char*, int> GetColText(int column) const;
    int GetColInt(int column) const;

    bool m_bHasRow = false; ///< whether a row is current

private:
    sqlite3_stmt* m_pStmt = nullptr;
};
