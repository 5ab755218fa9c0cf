// The layouts. Layout 1 holds the texts as they arrived. Layout 2 remembers the senders' numbers. Layout 3 holds the
// texts packed, which is a sixth of the bytes and less, and knows which reports are of like kind. An older file gets
// what it lacks when it is opened; its rows stay as they are and are read as they are.
//
// What goes when the store is full: something of the minute that has the most bytes. Reports of like kind are merged
// first, since they tell the same but for the page of the site.
#include "apps/hvbd/LogRows.h"

#include "apps/hvbd/HvbdLimits.h"
#include "apps/hvbd/LogStoreTexts.h"
#include "apps/hvbd/RecordKind.h"
#include "apps/hvbd/StoreFile.h"
#include "base/PackedText.h"
#include "platform/hvbhelpers/HubProtocol.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <limits>
#include <map>
#include <utility>

namespace HVB::hub {
namespace {

constexpr std::int64_t kApplicationId = 0x4856424C; ///< "HVBL"
constexpr std::int64_t kSchemaVersion = 3;

// The ids are AUTOINCREMENT so that one is never given twice, also when the newest record was deleted by hand.
constexpr const char* kSchema =
    "CREATE TABLE log(id INTEGER PRIMARY KEY AUTOINCREMENT, stored_at INTEGER NOT NULL, source INTEGER NOT NULL,"
    " type INTEGER NOT NULL, text BLOB NOT NULL, detail BLOB NOT NULL, count INTEGER NOT NULL);"
    "PRAGMA application_id=1213612620; PRAGMA user_version=1";
static_assert(kApplicationId == 1213612620, "the number in kSchema");

/// What each layout adds to the one before, from layout 2 on. A new file goes through all of them.
constexpr std::array kSteps{
    "CREATE TABLE sender(instance INTEGER PRIMARY KEY, number INTEGER NOT NULL, last_id INTEGER NOT NULL);"
    "PRAGMA user_version=2",
    "ALTER TABLE log ADD COLUMN packed INTEGER NOT NULL DEFAULT 0; ALTER TABLE log ADD COLUMN kind INTEGER;"
    "CREATE INDEX log_time ON log(stored_at); PRAGMA user_version=3",
};
static_assert(kSteps.size() + 1 == kSchemaVersion, "a step for each layout after the first");

constexpr const char* kInsert = "INSERT INTO log(stored_at, source, type, text, detail, count, packed, kind)"
                                " VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)";
constexpr const char* kMinutes =
    "SELECT stored_at / 60000000, sum(length(text) + length(detail)), count(*), count(kind)"
    " FROM log GROUP BY 1";
constexpr const char* kDataVersion = "PRAGMA data_version";
constexpr const char* kOldestOfMinute = "SELECT id, length(text) + length(detail) FROM log"
                                        " WHERE stored_at >= ?1 AND stored_at < ?2 ORDER BY stored_at, id LIMIT 1";
constexpr const char* kKindsOfMinute =
    "SELECT id, length(text) + length(detail), count, kind FROM log"
    " WHERE stored_at >= ?1 AND stored_at < ?2 AND kind IS NOT NULL ORDER BY stored_at DESC, id DESC";
constexpr const char* kSetCount = "UPDATE log SET count = ?2 WHERE id = ?1";
constexpr const char* kRemove = "DELETE FROM log WHERE id = ?1";
constexpr const char* kLastNumber = "SELECT number FROM sender WHERE instance = ?1";
constexpr const char* kNoteNumber =
    "INSERT INTO sender(instance, number, last_id) VALUES(?1, ?2, ?3)"
    " ON CONFLICT(instance) DO UPDATE SET number = excluded.number, last_id = excluded.last_id";
constexpr const char* kForgetSenders =
    "DELETE FROM sender WHERE instance NOT IN (SELECT instance FROM sender ORDER BY last_id DESC LIMIT ?1)";
constexpr const char* kFirst = "SELECT id, stored_at, source, type, text, detail, count, packed FROM log"
                               " WHERE id > ?1 ORDER BY id";
constexpr const char* kLast = "SELECT id, stored_at, source, type, text, detail, count, packed FROM log"
                              " WHERE id > ?1 ORDER BY id DESC";

LogStoreError openTrouble(const std::string& why) {
    return {LogStoreError::Kind::Trouble, std::string(kOpeningLogStore) + ": " + why};
}

/// Looks before anything is written: a file that is not ours stays as it is.
/// @return the layout of the file; 0 of a new one.
std::int64_t checkLayout(sqlite3& database, const std::string& path) {
    const std::int64_t objects = Sentrel::queryInteger(database, "SELECT count(*) FROM sqlite_schema");
    const std::int64_t application = Sentrel::queryInteger(database, "PRAGMA application_id");
    const std::int64_t version = Sentrel::queryInteger(database, "PRAGMA user_version");
    if (objects == 0 && application == 0 && version == 0) {
        return 0;
    }
    if (application != kApplicationId || version < 1) {
        throw openTrouble(explainForeign(path));
    }
    if (version > kSchemaVersion) {
        throw openTrouble(explainNewer(path, version));
    }
    return version;
}

/// In one transaction: another program, or this one after a crash, meets the old layout or the new one.
void bringUpToDate(sqlite3& database, std::int64_t version) {
    if (version == kSchemaVersion) {
        return;
    }
    Sentrel::WriteTransaction transaction(database);
    if (version == 0) {
        Sentrel::execute(database, kSchema);
    }
    for (auto next = static_cast<std::size_t>(std::max<std::int64_t>(version, 1)); next < kSchemaVersion; ++next) {
        Sentrel::execute(database, kSteps.at(next - 1));
    }
    transaction.commit();
}

/// The texts of a row. @return false when no message could carry them, or they are no packed texts: such a row was put
/// there by other means.
bool readTexts(Sentrel::Statement& row, StoredRecord& record) {
    const std::int64_t packed = row.integer(7);
    if (packed == 0) {
        record.text = row.bytes(4);
        record.detail = row.bytes(5);
    } else {
        const std::optional<std::string> texts = Sentrel::unpackWide(row.bytes(4), 2 * bus::kMaxTextBytes);
        const auto textBytes = static_cast<std::uint64_t>(packed - 1);
        if (!texts || textBytes > texts->size()) {
            return false;
        }
        record.text = texts->substr(0, textBytes);
        record.detail = texts->substr(textBytes);
    }
    return record.text.size() <= bus::kMaxTextBytes && record.detail.size() <= bus::kMaxTextBytes;
}

std::optional<StoredRecord> recordIn(Sentrel::Statement& row) {
    const auto number = [&](int column) { return static_cast<std::int32_t>(row.integer(column)); };
    StoredRecord record;
    record.id = static_cast<std::uint64_t>(row.integer(0));
    record.storedAt = row.integer(1);
    record.source = number(2);
    record.type = number(3);
    record.count = number(6);
    return readTexts(row, record) ? std::optional(std::move(record)) : std::nullopt;
}

std::uint64_t costOf(std::uint64_t textBytes) {
    return textBytes + kRecordOverheadBytes;
}

} // namespace

Sentrel::DatabasePtr openLogFile(const std::string& path) {
    Sentrel::DatabasePtr database = Sentrel::openDatabase(resolvedDirectory(path));
    Sentrel::setLockWait(*database, kStoreLockWait);
    Sentrel::execute(*database, "PRAGMA trusted_schema=OFF; PRAGMA cell_size_check=ON");
    const std::int64_t version = checkLayout(*database, path);
    Sentrel::execute(*database, "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL");
    Sentrel::execute(*database, fmt::format("PRAGMA journal_size_limit={}", kKeptWalBytes).c_str());
    bringUpToDate(*database, version);
    return database;
}

std::uint64_t LogRow::cost(const LogRecord& record) const {
    return costOf(packed == 0 ? record.text.size() + record.detail.size() : body.size());
}

LogRow rowOf(const LogRecord& record) {
    LogRow row;
    row.kind = kindOf(record.detail);
    const std::size_t bytes = record.text.size() + record.detail.size();
    if (bytes < kSmallestPackedBytes) {
        return row;
    }
    row.body = Sentrel::packWide(std::string(record.text).append(record.detail));
    if (row.body.size() < bytes) {
        row.packed = static_cast<std::int64_t>(record.text.size()) + 1;
    }
    return row;
}

LogRows::LogRows(sqlite3& database)
    : m_database(database), m_insert(database, kInsert), m_minutes(database, kMinutes),
      m_dataVersion(database, kDataVersion), m_oldestOfMinute(database, kOldestOfMinute),
      m_kindsOfMinute(database, kKindsOfMinute), m_setCount(database, kSetCount), m_remove(database, kRemove),
      m_lastNumber(database, kLastNumber), m_noteNumber(database, kNoteNumber),
      m_forgetSenders(database, kForgetSenders), m_first(database, kFirst), m_last(database, kLast) {}

MinuteBook LogRows::count() {
    MinuteBook book;
    Sentrel::StatementUse minutes(m_minutes);
    while (minutes->step()) {
        const auto number = [&](int column) { return static_cast<std::uint64_t>(minutes->integer(column)); };
        book.add(minutes->integer(0), number(1) + number(2) * kRecordOverheadBytes, number(2), number(3));
    }
    return book;
}

std::int64_t LogRows::dataVersion() {
    Sentrel::StatementUse version(m_dataVersion);
    version->step();
    return version->integer(0);
}

std::uint64_t LogRows::insert(const LogRecord& record, const LogRow& row, std::int64_t now) {
    const bool isPacked = row.packed != 0;
    Sentrel::StatementUse add(m_insert);
    add->bind(1, now);
    add->bind(2, std::int64_t{record.source});
    add->bind(3, std::int64_t{record.type});
    add->bind(4, isPacked ? std::string_view(row.body) : record.text);
    add->bind(5, isPacked ? std::string_view("") : record.detail);
    add->bind(6, std::int64_t{record.count});
    add->bind(7, row.packed);
    if (row.kind) {
        add->bind(8, *row.kind); // else it is NULL
    }
    add->step();
    return static_cast<std::uint64_t>(Sentrel::lastInsertedRow(m_database));
}

void LogRows::makeRoom(MinuteBook& book) {
    const std::int64_t minute = book.fullest();
    if (!book.isMergeWorthwhile(minute) || !mergeLike(minute, book)) {
        removeOldest(minute, book);
    }
}

/// The rows of a minute that others are like, at most kMaxMergedRecords: the newest of each kind stays.
LogRows::Merge LogRows::findLike(std::int64_t minute) {
    struct Newest {
        std::int64_t id;
        std::int64_t count;
        bool isAlone;
    };
    std::map<std::int64_t, Newest> newestOfKind;
    Merge merge;
    Sentrel::StatementUse rows(m_kindsOfMinute);
    rows->bind(1, minute * MinuteBook::kMicroseconds);
    rows->bind(2, (minute + 1) * MinuteBook::kMicroseconds);
    while (merge.removed.size() < kMaxMergedRecords && rows->step()) {
        const std::int64_t count = std::max<std::int64_t>(rows->integer(2), 1);
        const auto [newest, isFirst] =
            newestOfKind.try_emplace(rows->integer(3), Newest{rows->integer(0), count, true});
        if (!isFirst) {
            newest->second.count += count;
            newest->second.isAlone = false;
            merge.removed.push_back({rows->integer(0), costOf(static_cast<std::uint64_t>(rows->integer(1)))});
        }
    }
    for (const auto& [kind, newest] : newestOfKind) {
        if (!newest.isAlone) {
            merge.counts.emplace_back(newest.id, newest.count);
        }
    }
    return merge;
}

/// @return whether it made room.
bool LogRows::mergeLike(std::int64_t minute, MinuteBook& book) {
    const Merge merge = findLike(minute);
    for (const auto& [id, count] : merge.counts) {
        Sentrel::StatementUse set(m_setCount);
        set->bind(1, id);
        set->bind(2, std::min<std::int64_t>(count, std::numeric_limits<std::int32_t>::max()));
        set->step();
    }
    for (const Merge::Removed& row : merge.removed) {
        remove(row.id);
        book.remove(minute, row.bytes, 1);
    }
    if (merge.removed.size() < kMaxMergedRecords) {
        book.noteMerged(minute);
    }
    return !merge.removed.empty();
}

void LogRows::removeOldest(std::int64_t minute, MinuteBook& book) {
    std::int64_t id = 0;
    std::uint64_t bytes = 0;
    {
        Sentrel::StatementUse oldest(m_oldestOfMinute);
        oldest->bind(1, minute * MinuteBook::kMicroseconds);
        oldest->bind(2, (minute + 1) * MinuteBook::kMicroseconds);
        oldest->step();
        id = oldest->integer(0);
        bytes = costOf(static_cast<std::uint64_t>(oldest->integer(1)));
    }
    remove(id);
    book.remove(minute, bytes, 1);
}

void LogRows::remove(std::int64_t id) {
    Sentrel::StatementUse erase(m_remove);
    erase->bind(1, id);
    erase->step();
}

std::uint64_t LogRows::lastNumberOf(std::uint64_t instance) {
    Sentrel::StatementUse find(m_lastNumber);
    find->bind(1, static_cast<std::int64_t>(instance));
    return find->step() ? static_cast<std::uint64_t>(find->integer(0)) : 0;
}

void LogRows::noteNumber(const RecordNumber& number, std::uint64_t id) {
    const bool isNew = lastNumberOf(number.instance) == 0;
    Sentrel::StatementUse note(m_noteNumber);
    note->bind(1, static_cast<std::int64_t>(number.instance));
    note->bind(2, static_cast<std::int64_t>(number.number));
    note->bind(3, static_cast<std::int64_t>(id));
    note->step();
    if (isNew) {
        Sentrel::StatementUse forget(m_forgetSenders);
        forget->bind(1, kMaxInstances);
        forget->step();
    }
}

std::vector<StoredRecord> LogRows::read(std::uint64_t after, std::uint32_t limit, bool newest) {
    constexpr auto lastId = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    const std::size_t most = std::min(limit, kMaxReadRecords);
    Sentrel::StatementUse rows(newest ? m_last : m_first);
    rows->bind(1, static_cast<std::int64_t>(std::min(after, lastId)));
    std::vector<StoredRecord> records;
    std::size_t bytes = 0;
    while (records.size() < most && rows->step()) {
        std::optional<StoredRecord> record = recordIn(*rows.operator->());
        if (!record) {
            continue; // passed over, or nothing behind it could be read any more
        }
        bytes += record->text.size() + record->detail.size();
        if (bytes > kMaxReadBytes && !records.empty()) {
            break;
        }
        records.push_back(*std::move(record));
    }
    if (newest) {
        std::reverse(records.begin(), records.end());
    }
    return records;
}

} // namespace HVB::hub
