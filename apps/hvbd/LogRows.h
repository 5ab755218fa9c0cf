// The rows of the log store: its layouts, and every statement that reads or writes them.
#pragma once

#include "apps/hvbd/LogStore.h"
#include "apps/hvbd/MinuteBook.h"
#include "base/Database.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace HVB::hub {

/// Opens the file of a log store and gives it the layout of this version, in one transaction.
/// @throws LogStoreError of a file that is not ours or newer, which stays as it is; DatabaseError.
Sentrel::DatabasePtr openLogFile(const std::string& path);

/// A record in the form in which it is stored.
struct LogRow {
    /// Of a record that gets smaller so: both texts packed, and 1 + the bytes of the first one. Otherwise 0.
    std::int64_t packed = 0;
    std::string body; ///< the packed texts; empty when they stand as they are
    std::optional<std::int64_t> kind;

    /// What it takes of the store's limit, in bytes.
    std::uint64_t cost(const LogRecord& record) const;
};
LogRow rowOf(const LogRecord& record);

/// The statements on an open log store, kept for use again and again. All throw DatabaseError.
/// Threads: one at a time. Owner: the store's connection; the database outlives it.
class LogRows {
public:
    explicit LogRows(sqlite3& database);

    /// What is stored, by minutes. Reads every row.
    MinuteBook count();
    /// Changes whenever another program has written to the file.
    std::int64_t dataVersion();

    /// @return the id.
    std::uint64_t insert(const LogRecord& record, const LogRow& row, std::int64_t now);
    /// Makes room in the fullest minute: of the records of like kind one stays, the newest, with the sum of their
    /// counts; when there are none, or few may have come since the last look, the oldest record of the minute goes.
    /// Requires that the book has a minute.
    void makeRoom(MinuteBook& book);

    /// The number of the last record of a sender that was stored; 0 when none is remembered.
    std::uint64_t lastNumberOf(std::uint64_t instance);
    void noteNumber(const RecordNumber& number, std::uint64_t id);

    /// As LogStore::read.
    std::vector<StoredRecord> read(std::uint64_t after, std::uint32_t limit, bool newest);

private:
    /// What becomes of rows that are alike.
    struct Merge {
        struct Removed {
            std::int64_t id;
            std::uint64_t bytes;
        };
        std::vector<Removed> removed;
        std::vector<std::pair<std::int64_t, std::int64_t>> counts; ///< of the rows that stay, by id
    };

    Merge findLike(std::int64_t minute);
    bool mergeLike(std::int64_t minute, MinuteBook& book);
    void removeOldest(std::int64_t minute, MinuteBook& book);
    void remove(std::int64_t id);

    sqlite3& m_database;
    Sentrel::Statement m_insert;
    Sentrel::Statement m_minutes;
    Sentrel::Statement m_dataVersion;
    Sentrel::Statement m_oldestOfMinute;
    Sentrel::Statement m_kindsOfMinute;
    Sentrel::Statement m_setCount;
    Sentrel::Statement m_remove;
    Sentrel::Statement m_lastNumber;
    Sentrel::Statement m_noteNumber;
    Sentrel::Statement m_forgetSenders;
    Sentrel::Statement m_first;
    Sentrel::Statement m_last;
};

} // namespace HVB::hub
