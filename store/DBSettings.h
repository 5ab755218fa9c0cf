// The short-lived front end of the settings file.
#pragma once

#include "base/ClassComp.h"
#include "store/Queries.h"
#include "store/SQLite.h"

#include <list>
#include <map>
#include <string>

/// The settings file, opened for one operation: built, Init, a few reads or writes, destroyed. Every change is
/// committed when it is made. Nothing is cached, and nothing is reported but by results: a write that the file refuses
/// at its last step counts as done.
/// Threads: one at a time; each thread has its own. Owner: whoever built it.
class CVXDBSettings : public CSQLiteDBConnection {
public:
    CVXDBSettings();
    ~CVXDBSettings();

    /// Opens the file, making it and the last directory of its path when they are absent, and prepares the statements.
    /// Requires that it was not called on this object before.
    /// @param fix create tables that are missing; to use them, build another object. Without it a missing table, a
    /// locked file or a file that is no database ends the preparation and is no error; operations that need the table
    /// then fail softly.
    /// @return false when there is no database to use: the file cannot be opened, a table cannot be made, or one is not
    /// what the statements expect.
    bool Init(const char* path, bool fix);

    /// Gives back the statements that write. The file stays open, unlike with the base's Close.
    void Close();

    /// Prepares the statements that read and those that write, making the tables that are missing. False without an
    /// open file, and for every further call after one that failed, until Close.
    bool Create();

    /// Makes the table when nothing else is wrong. Never touches a file that is damaged or is no database. Requires
    /// that preparing its statement has just failed.
    /// @return whether the table can be read now.
    bool FixDatabase(int tableType);

    /// Copies the value of @p name. A length of 0 stands for that of the text.
    /// @param size gets the value's size when it does not fit into the buffer, or there is none.
    /// @return whether the value was copied; a shorter one leaves the rest of the buffer as it was.
    bool Get(const char* name, unsigned long nameLength, void* buffer, unsigned long bufferSize, unsigned long* size,
             TableType type);

    /// Stores @p value as a blob. False for no value, an empty one or no name.
    bool Set(const char* name, unsigned long nameLength, const void* value, unsigned long valueLength, TableType type);
    /// Stores @p value as an integer. False for an empty name.
    bool Set(std::string name, int value, TableType type);
    /// Stores a row of one column: @p type is TABLE_PRIVATE_IP_RANGE. False for an empty name.
    bool Set(std::string name, TableType type);

    /// Empties the table. True also when there is none.
    bool Delete(TableType type);

    using Rows = std::multimap<std::string, int, NPlgHelper::classcomp>;
    /// All rows in the order of the file; those of the allow/block table by their value, ascending or descending.
    /// False without the table, and for the private ranges, which do not fit; @p out is empty then.
    bool GetAllRows(TableType type, Rows& out, bool ascending);

    /// Appends the private ranges. Always false; what was found is in the list.
    bool GetPrivateRangeList(std::list<std::string>& out);

    /// Host, user name and password of the proxy, as far as they are stored.
    std::multimap<std::string, std::string> GetProxyStrings();

private:
    using RowSets = std::map<int, CSQLiteRowSet*>; // keys are TableType

    bool openOrMakeDirectory(const char* path);
    bool prepare(const RowSets& rowSets, int tableType, Query query);
    bool prepareEach(const RowSets& rowSets, Query query);
    bool prepareOrFixGets();
    bool prepareAll(bool fix);
    CSQLiteRowSet* setRowSet(TableType type);

    RowSets m_getRowSets; // owned, like the two below
    RowSets m_setRowSets;
    RowSets m_deleteRowSets;
    bool m_bCreating = false;
};
