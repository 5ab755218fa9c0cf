// How a record survives.
//
// A batch is one transaction in write-ahead mode with synchronous=FULL: when COMMIT returns, the batch is synced, and
// neither kill -9 nor a power cut takes it back. What SQLite does not notice in this mode is that its file was deleted
// or replaced: it reports success and the records are gone with the last descriptor. So the file at the path is
// compared with the one that was opened, before a batch (then it is opened anew) and again after its commit, before
// anybody is told (then the batch is written once more, into the file that is there now).
//
// The running total of bytes is counted when the file is opened and kept in memory. Another program that writes to
// the file changes its data_version, and the total is counted again.
#include "apps/hvbd/LogStore.h"

#include "apps/hvbd/HvbdLimits.h"
#include "apps/hvbd/LogStoreTexts.h"
#include "platform/hvbhelpers/HubProtocol.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <limits>
#include <optional>
#include <system_error>
#include <utility>

namespace HVB::hub {
namespace {

constexpr std::int64_t kApplicationId = 0x4856424C; ///< "HVBL"
constexpr std::int64_t kSchemaVersion = 2;

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
};
static_assert(kSteps.size() + 1 == kSchemaVersion, "a step for each layout after the first");

constexpr const char* kInsert =
    "INSERT INTO log(stored_at, source, type, text, detail, count) VALUES(?1, ?2, ?3, ?4, ?5, ?6)";
constexpr const char* kLastNumber = "SELECT number FROM sender WHERE instance = ?1";
constexpr const char* kNoteNumber =
    "INSERT INTO sender(instance, number, last_id) VALUES(?1, ?2, ?3)"
    " ON CONFLICT(instance) DO UPDATE SET number = excluded.number, last_id = excluded.last_id";
constexpr const char* kForgetSenders =
    "DELETE FROM sender WHERE instance NOT IN (SELECT instance FROM sender ORDER BY last_id DESC LIMIT ?1)";
constexpr const char* kOldest = "SELECT id, length(text) + length(detail) FROM log ORDER BY id LIMIT 1";
constexpr const char* kDelete = "DELETE FROM log WHERE id = ?1";
constexpr const char* kTotal = "SELECT count(*), coalesce(sum(length(text) + length(detail)), 0) FROM log";
constexpr const char* kDataVersion = "PRAGMA data_version";
// A record that no message could carry was put there by other means. It is passed over, or nothing behind it could be
// read any more.
constexpr const char* kFirst = "SELECT id, stored_at, source, type, text, detail, count FROM log"
                               " WHERE id > ?1 AND length(text) <= ?3 AND length(detail) <= ?3 ORDER BY id LIMIT ?2";
constexpr const char* kLast =
    "SELECT id, stored_at, source, type, text, detail, count FROM log"
    " WHERE id > ?1 AND length(text) <= ?3 AND length(detail) <= ?3 ORDER BY id DESC LIMIT ?2";

std::string walOf(const std::string& path) {
    return path + "-wal";
}

std::uint64_t cost(std::uint64_t textBytes) {
    return textBytes + kRecordOverheadBytes;
}
std::uint64_t cost(const LogRecord& record) {
    return cost(record.text.size() + record.detail.size());
}

std::int64_t microsecondsNow() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

LogStoreError storeTrouble(const std::string& doing, const std::string& why) {
    return {LogStoreError::Kind::Trouble, doing + ": " + why};
}

StoredRecord rowOf(Sentrel::Statement& statement) {
    const auto number = [&](int column) { return static_cast<std::int32_t>(statement.integer(column)); };
    StoredRecord record;
    record.id = static_cast<std::uint64_t>(statement.integer(0));
    record.storedAt = statement.integer(1);
    record.source = number(2);
    record.type = number(3);
    record.text = statement.bytes(4);
    record.detail = statement.bytes(5);
    record.count = number(6);
    return record;
}

constexpr const char* kStoring = "cannot store the record";
constexpr const char* kReading = "cannot read the stored records";
constexpr const char* kOpening = "cannot open the log store";

/// Looks before anything is written: a file that is not ours stays as it is.
/// @return the layout of the file; 0 of a new one.
std::int64_t checkLayout(sqlite3& database, const std::string& path) {
    const std::int64_t objects = Sentrel::queryInteger(database, "SELECT count(*) FROM sqlite_schema");
    const std::int64_t application = Sentrel::queryInteger(database, "PRAGMA application_id");
    const std::int64_t version = Sentrel::queryInteger(database, "PRAGMA user_version");
    if (objects == 0 && application == 0 && version == 0) {
        return 0;
    }
    if (application != kApplicationId) {
        throw storeTrouble(kOpening, explainForeign(path));
    }
    if (version > kSchemaVersion) {
        throw storeTrouble(kOpening, explainNewer(path, version));
    }
    if (version < 1) {
        throw storeTrouble(kOpening, explainForeign(path));
    }
    return version;
}

/// Gives the file this layout, in one transaction: another program, or this one after a crash, meets the old layout or
/// the new one. The records stay as they are.
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

Sentrel::DatabasePtr openStore(const std::string& path) {
    Sentrel::DatabasePtr database = Sentrel::openDatabase(resolvedDirectory(path));
    Sentrel::setLockWait(*database, kStoreLockWait);
    Sentrel::execute(*database, "PRAGMA trusted_schema=OFF; PRAGMA cell_size_check=ON");
    const std::int64_t version = checkLayout(*database, path);
    Sentrel::execute(*database, "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL");
    Sentrel::execute(*database, fmt::format("PRAGMA journal_size_limit={}", kKeptWalBytes).c_str());
    bringUpToDate(*database, version);
    return database;
}

} // namespace

/// The open file with its kept statements.
/// Threads: one at a time. Owner: the store.
struct LogStore::Connection {
    Connection(Sentrel::DatabasePtr opened, FileIdentity identity)
        : database(std::move(opened)), file(identity), insert(*database, kInsert), lastNumber(*database, kLastNumber),
          noteNumber(*database, kNoteNumber), forgetSenders(*database, kForgetSenders), oldest(*database, kOldest),
          remove(*database, kDelete), total(*database, kTotal), dataVersion(*database, kDataVersion),
          first(*database, kFirst), last(*database, kLast) {}

    void noteWal(const std::string& path) {
        if (const auto found = regularFileAt(walOf(path)); found && !wal) {
            wal = found->identity;
        }
    }

    std::uint64_t countBytes();
    std::uint64_t bytesInTransaction();
    std::uint64_t removeOldest();
    std::uint64_t insertOne(const LogRecord& record, std::int64_t now);
    std::uint64_t lastNumberOf(std::uint64_t instance);
    void note(const RecordNumber& number, std::uint64_t id);

    Sentrel::DatabasePtr database;
    FileIdentity file;
    std::optional<FileIdentity> wal; ///< known from the first commit on at the latest
    std::optional<std::uint64_t> totalBytes;
    std::int64_t countedVersion = 0; ///< of the file, when totalBytes was counted
    Sentrel::Statement insert;
    Sentrel::Statement lastNumber;
    Sentrel::Statement noteNumber;
    Sentrel::Statement forgetSenders;
    Sentrel::Statement oldest;
    Sentrel::Statement remove;
    Sentrel::Statement total;
    Sentrel::Statement dataVersion;
    Sentrel::Statement first;
    Sentrel::Statement last;
};

std::uint64_t LogStore::Connection::countBytes() {
    Sentrel::StatementUse count(total);
    count->step();
    const auto records = static_cast<std::uint64_t>(count->integer(0));
    return static_cast<std::uint64_t>(count->integer(1)) + records * kRecordOverheadBytes;
}

std::uint64_t LogStore::Connection::bytesInTransaction() {
    Sentrel::StatementUse version(dataVersion);
    version->step();
    const std::int64_t current = version->integer(0);
    if (!totalBytes || current != countedVersion) {
        totalBytes = countBytes();
        countedVersion = current;
    }
    return *totalBytes;
}

/// @return what the record had cost; 0 when there is none left.
std::uint64_t LogStore::Connection::removeOldest() {
    Sentrel::StatementUse find(oldest);
    if (!find->step()) {
        return 0;
    }
    const std::uint64_t freed = cost(static_cast<std::uint64_t>(find->integer(1)));
    Sentrel::StatementUse erase(remove);
    erase->bind(1, find->integer(0));
    erase->step();
    return freed;
}

std::uint64_t LogStore::Connection::insertOne(const LogRecord& record, std::int64_t now) {
    Sentrel::StatementUse add(insert);
    add->bind(1, now);
    add->bind(2, std::int64_t{record.source});
    add->bind(3, std::int64_t{record.type});
    add->bind(4, record.text);
    add->bind(5, record.detail);
    add->bind(6, std::int64_t{record.count});
    add->step();
    return static_cast<std::uint64_t>(Sentrel::lastInsertedRow(*database));
}

/// The number of the last record of a sender that was stored; 0 when none is remembered.
std::uint64_t LogStore::Connection::lastNumberOf(std::uint64_t instance) {
    Sentrel::StatementUse find(lastNumber);
    find->bind(1, static_cast<std::int64_t>(instance));
    return find->step() ? static_cast<std::uint64_t>(find->integer(0)) : 0;
}

void LogStore::Connection::note(const RecordNumber& number, std::uint64_t id) {
    const bool isNew = lastNumberOf(number.instance) == 0;
    Sentrel::StatementUse noted(noteNumber);
    noted->bind(1, static_cast<std::int64_t>(number.instance));
    noted->bind(2, static_cast<std::int64_t>(number.number));
    noted->bind(3, static_cast<std::int64_t>(id));
    noted->step();
    if (isNew) {
        Sentrel::StatementUse forget(forgetSenders);
        forget->bind(1, kMaxInstances);
        forget->step();
    }
}

LogStore::LogStore(std::string path, std::uint64_t limitBytes) : m_path(std::move(path)), m_limitBytes(limitBytes) {}

LogStore::~LogStore() = default;

void LogStore::open() {
    try {
        openFile();
    } catch (const Sentrel::DatabaseError& error) {
        fail(kOpening, error);
    }
}

void LogStore::checkSize(const LogRecord& record) const {
    if (cost(record) > m_limitBytes) {
        throw LogStoreError(LogStoreError::Kind::Refused,
                            fmt::format("the record has {} bytes, more than the whole log store may hold ({}). Raise "
                                        "hvbd's --log-limit-mib or send less.",
                                        cost(record), m_limitBytes));
    }
}

std::vector<std::uint64_t> LogStore::append(std::span<const LogRecord> records) {
    std::for_each(records.begin(), records.end(), [this](const LogRecord& record) { checkSize(record); });
    try {
        constexpr int attempts = 2;
        for (int attempt = 0; attempt < attempts; ++attempt) {
            openFile();
            std::vector<std::uint64_t> ids = write(records);
            if (stillInPlace()) {
                return ids;
            }
            leaveFile();
        }
    } catch (const Sentrel::DatabaseError& error) {
        fail(kStoring, error);
    }
    throw storeTrouble(kStoring, explainReplaced(m_path));
}

std::vector<StoredRecord> LogStore::read(std::uint64_t after, std::uint32_t limit, bool newest) {
    struct stat facts {};
    if (m_connection == nullptr && lstat(m_path.c_str(), &facts) != 0 && errno == ENOENT) {
        return {};
    }
    try {
        openFile();
        return select(after, limit, newest);
    } catch (const Sentrel::DatabaseError& error) {
        fail(kReading, error);
    }
}

bool LogStore::stillInPlace() const {
    const auto file = regularFileAt(m_path);
    if (!file || file->identity != m_connection->file) {
        return false;
    }
    if (!m_connection->wal) {
        return true;
    }
    const auto wal = regularFileAt(walOf(m_path));
    return wal && wal->identity == *m_connection->wal;
}

void LogStore::openFile() {
    if (m_connection != nullptr) {
        if (stillInPlace()) {
            return;
        }
        leaveFile();
    }
    try {
        const FileIdentity file = makeStoreFile(m_path);
        m_connection = std::make_unique<Connection>(openStore(m_path), file);
        m_connection->noteWal(m_path);
    } catch (const std::system_error& error) {
        throw storeTrouble(kOpening, explainFile(m_path, error.code().value()));
    }
}

/// Closes a file that is not the one at the path any more. SQLite then leaves the old file's write-ahead log behind,
/// and would replay it into whatever stands at the path now. It is moved aside and not deleted: what was not yet copied
/// into the old file is in it alone.
void LogStore::leaveFile() {
    const bool moved = !regularFileAt(m_path) || regularFileAt(m_path)->identity != m_connection->file;
    const std::optional<FileIdentity> wal = m_connection->wal;
    close();
    const auto left = regularFileAt(walOf(m_path));
    if (moved && left && wal == left->identity) {
        const std::string aside = walOf(m_path) + ".orphan";
        if (rename(walOf(m_path).c_str(), aside.c_str()) != 0) {
            throw storeTrouble(kOpening, explainFile(aside, errno));
        }
    }
}

void LogStore::close() noexcept {
    m_connection.reset();
}

std::vector<std::uint64_t> LogStore::write(std::span<const LogRecord> records) {
    Connection& store = *m_connection;
    const std::string walPath = walOf(m_path);
    if (const auto wal = regularFileAt(walPath); wal && wal->size > kMaxWalBytes) {
        // The size tells whether it did what is needed here.
        static_cast<void>(Sentrel::emptyWriteAheadLog(*store.database));
        if (const auto kept = regularFileAt(walPath); kept && kept->size > kMaxWalBytes) {
            throw storeTrouble(kStoring, explainPinned(m_path));
        }
    }
    Sentrel::WriteTransaction transaction(*store.database);
    std::uint64_t total = store.bytesInTransaction();
    const std::int64_t now = microsecondsNow();
    std::vector<std::uint64_t> ids;
    ids.reserve(records.size());
    for (const LogRecord& record : records) {
        // Asked inside the transaction: the first sending of a record may stand in this very batch.
        if (record.number && record.number->number <= store.lastNumberOf(record.number->instance)) {
            ids.push_back(bus::kAlreadyStored);
            continue;
        }
        // Room is made first, so that the new record goes into pages that the old ones leave.
        while (total + cost(record) > m_limitBytes) {
            const std::uint64_t freed = store.removeOldest();
            total = freed == 0 ? 0 : total - std::min(total, freed);
        }
        ids.push_back(store.insertOne(record, now));
        if (record.number) {
            store.note(*record.number, ids.back());
        }
        total += cost(record);
    }
    transaction.commit();
    store.totalBytes = total;
    store.noteWal(m_path);
    return ids;
}

std::vector<StoredRecord> LogStore::select(std::uint64_t after, std::uint32_t limit, bool newest) {
    constexpr auto lastId = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    Sentrel::StatementUse rows(newest ? m_connection->last : m_connection->first);
    rows->bind(1, static_cast<std::int64_t>(std::min(after, lastId)));
    rows->bind(2, std::int64_t{std::min(limit, kMaxReadRecords)});
    rows->bind(3, static_cast<std::int64_t>(bus::kMaxTextBytes));
    std::vector<StoredRecord> records;
    std::size_t bytes = 0;
    while (rows->step()) {
        StoredRecord record = rowOf(*rows.operator->());
        bytes += record.text.size() + record.detail.size();
        if (bytes > kMaxReadBytes && !records.empty()) {
            break;
        }
        records.push_back(std::move(record));
    }
    if (newest) {
        std::reverse(records.begin(), records.end());
    }
    return records;
}

void LogStore::fail(const std::string& doing, const Sentrel::DatabaseError& error) {
    // A lock passes and leaves the connection as it was. After anything else the file is looked at afresh.
    if (error.code() != SQLITE_BUSY) {
        close();
    }
    throw storeTrouble(doing, explain(m_path, error));
}

} // namespace HVB::hub
