// The hub's store of log records: what was answered is on the disk, and what is on the disk is bounded.
#pragma once

#include "apps/hvbd/MinuteBook.h"
#include "apps/hvbd/StoreFile.h"
#include "base/Database.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace HVB::hub {

/// Which record of which sender. A sender gives each of its records a number above that of the record before, and keeps
/// one record on its way at a time; so the last number that was stored tells which were.
struct RecordNumber {
    std::uint64_t instance = 0; ///< chosen at random, one for each life of a sender
    std::uint64_t number = 0;   ///< above 0; below 2^63, as the store's integers are
};

/// A record as its sender gave it. The texts are the bytes that arrived, UCS-4LE, and are not owned.
/// Threads: one at a time. Owner: the sender's message owns the bytes.
struct LogRecord {
    std::int32_t source = 0;
    std::int32_t type = 0;
    std::string_view text;
    std::string_view detail;
    std::int32_t count = 0;
    std::optional<RecordNumber> number = {}; ///< none: the record is stored as often as it is sent
};

/// A record as the store gives it back.
struct StoredRecord {
    std::uint64_t id = 0;
    std::int64_t storedAt = 0; ///< microseconds since the epoch
    std::int32_t source = 0;
    std::int32_t type = 0;
    std::string text;
    std::string detail;
    std::int32_t count = 0;
};

/// Records could not be stored or read. The message says what, where, why and what to do.
class LogStoreError : public std::runtime_error {
public:
    enum class Kind {
        Trouble, ///< the store's: the same call may succeed once somebody has mended it
        Refused, ///< the record's: it will never be stored
    };

    LogStoreError(Kind kind, const std::string& message) : std::runtime_error(message), m_kind(kind) {}

    Kind kind() const { return m_kind; }
    std::string message() const { return what(); }

private:
    Kind m_kind;
};

/// Log records in one SQLite file.
///
/// The file is opened with the first use and again after any trouble, so that the store works again with the first
/// call after the trouble was mended. A file that is damaged, of a newer layout or somebody else's is never written
/// to, moved or deleted. When the file is taken away or replaced, the records go on in the file that is at the path
/// from then on, and the old one's write-ahead log is kept beside it under the ending "-wal.orphan", that of
/// the next one under "-wal.orphan-2", up to kMaxOrphans of them.
///
/// The texts are packed where that makes them smaller (base/PackedText.h), and come back as they were.
///
/// Bound: the records count with their stored texts and kRecordOverheadBytes each, and together never exceed the limit.
/// What goes first stands in the minute that has the most: reports of like kind (site, process, action) are merged into
/// the newest of them, which gets the sum of their counts; then the oldest go. Pages hold at least half of what they
/// could, so the file stays below twice the limit and 1 MiB; the write-ahead log beside it stays below kMaxWalBytes and
/// one batch. The file does not shrink by itself. A store that was found above the limit comes down to it in slices of
/// kSliceBytes, one with each batch and one with each call of shrink(), and does not grow meanwhile.
///
/// The last number is remembered of the kMaxInstances senders that stored last.
///
/// Threads: one at a time. Owner: the program.
class LogStore {
public:
    /// @param limitBytes the bound above; the newest record is kept in any case.
    LogStore(std::string path, std::uint64_t limitBytes);
    ~LogStore();
    LogStore(const LogStore&) = delete;
    LogStore& operator=(const LogStore&) = delete;

    /// Opens the file, making it when there is none, and counts its records, which reads all of it. Not needed before
    /// the other calls, but reports trouble early, and keeps the first record from waiting for the count.
    /// @throws LogStoreError
    void open();

    /// Whether the records are known to exceed the limit.
    bool hasSurplus() const;

    /// Drops a slice of what exceeds the limit, on the disk when it returns. Does nothing when nothing does.
    /// @return hasSurplus(). @throws LogStoreError
    bool shrink();

    /// @throws LogStoreError of kind Refused when the record alone exceeds the limit.
    void checkSize(const LogRecord& record) const;

    /// Stores all of @p records or none, and returns when they are on the disk. One whose number was stored before is
    /// not stored again; the numbers are remembered in the transaction that holds the records.
    /// @return their ids, in order; ids only rise and are never given twice. bus::kAlreadyStored for one that was.
    /// @throws LogStoreError
    std::vector<std::uint64_t> append(std::span<const LogRecord> records);

    /// The stored records with an id above @p after in ascending order: the first ones, or with @p newest the last
    /// ones, at most @p limit and no more than fit into one reply (HvbdLimits.h). No file yet: none, and none is made.
    /// @throws LogStoreError
    std::vector<StoredRecord> read(std::uint64_t after, std::uint32_t limit, bool newest);

private:
    struct Connection;

    bool stillInPlace() const;
    void openFile();
    void leaveFile();
    std::string freeOrphanName() const;
    void close() noexcept;
    void boundWal() const;
    std::uint64_t boundFor(const MinuteBook& book) const;
    std::vector<std::uint64_t> write(std::span<const LogRecord> records);
    void dropSlice();
    [[noreturn]] void fail(const std::string& doing, const Sentrel::DatabaseError& error);

    // Constant after construction.
    const std::string m_path;
    const std::uint64_t m_limitBytes;
    // Plain, single access.
    std::unique_ptr<Connection> m_connection; ///< null when the file is not open
};

} // namespace HVB::hub
