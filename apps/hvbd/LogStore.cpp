// How a record survives.
//
// A batch is one transaction in write-ahead mode with synchronous=FULL: when COMMIT returns, the batch is synced, and
// neither kill -9 nor a power cut takes it back. What SQLite does not notice in this mode is that its file was deleted
// or replaced: it reports success and the records are gone with the last descriptor. So the file at the path is
// compared with the one that was opened, before a batch (then it is opened anew) and again after its commit, before
// anybody is told (then the batch is written once more, into the file that is there now).
//
// How full each minute is is counted when the file is opened and kept in memory. Another program that writes to the
// file changes its data_version, and it is counted again.
//
// A store above its limit, as after a lowered limit, comes down in slices: one transaction for the whole surplus would
// hold up the senders for seconds, and write as much to the write-ahead log, for which a nearly full disk has no room.
#include "apps/hvbd/LogStore.h"

#include "apps/hvbd/HvbdLimits.h"
#include "apps/hvbd/LogRows.h"
#include "apps/hvbd/LogStoreTexts.h"
#include "platform/hvbhelpers/HubProtocol.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <optional>
#include <system_error>
#include <utility>

namespace HVB::hub {
namespace {

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

constexpr const char* kStoring = "cannot store the record";
constexpr const char* kShrinking = "cannot drop the records that exceed the limit";
constexpr const char* kReading = "cannot read the stored records";

} // namespace

/// The open file with its kept statements.
/// Threads: one at a time. Owner: the store.
struct LogStore::Connection {
    Connection(Sentrel::DatabasePtr opened, FileIdentity identity)
        : database(std::move(opened)), file(identity), rows(*database) {}

    void noteWal(const std::string& path) {
        if (const auto found = regularFileAt(walOf(path)); found && !wal) {
            wal = found->identity;
        }
    }

    /// The book, for a transaction that has begun. The caller puts it back when it has committed; otherwise the rows
    /// are counted again.
    MinuteBook takeBook() {
        const std::int64_t current = rows.dataVersion();
        if (!book || current != countedVersion) {
            countedVersion = current;
            book.reset();
            return rows.count();
        }
        return *std::exchange(book, std::nullopt);
    }

    Sentrel::DatabasePtr database;
    FileIdentity file;
    std::optional<FileIdentity> wal; ///< known from the first commit on at the latest
    LogRows rows;
    std::optional<MinuteBook> book;
    std::int64_t countedVersion = 0; ///< of the file, when the book was made
};

LogStore::LogStore(std::string path, std::uint64_t limitBytes) : m_path(std::move(path)), m_limitBytes(limitBytes) {}

LogStore::~LogStore() = default;

void LogStore::open() {
    try {
        openFile();
        m_connection->book = m_connection->takeBook();
    } catch (const Sentrel::DatabaseError& error) {
        fail(kOpeningLogStore, error);
    }
}

bool LogStore::hasSurplus() const {
    return m_connection != nullptr && m_connection->book && m_connection->book->totalBytes() > m_limitBytes;
}

bool LogStore::shrink() {
    try {
        openFile();
        dropSlice();
    } catch (const Sentrel::DatabaseError& error) {
        fail(kShrinking, error);
    }
    return hasSurplus();
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
        return m_connection->rows.read(after, limit, newest);
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
        m_connection = std::make_unique<Connection>(openLogFile(m_path), file);
        m_connection->noteWal(m_path);
    } catch (const std::system_error& error) {
        throw storeTrouble(kOpeningLogStore, explainFile(m_path, error.code().value()));
    }
}

/// Closes a file that is not the one at the path any more. SQLite then leaves the old file's write-ahead log behind,
/// and would replay it into whatever stands at the path now. It is moved aside and not deleted: what was not yet copied
/// into the old file is in it alone.
void LogStore::leaveFile() {
    const bool moved = !regularFileAt(m_path) || regularFileAt(m_path)->identity != m_connection->file;
    const auto wal = regularFileAt(walOf(m_path));
    if (!moved || !wal || m_connection->wal != wal->identity) {
        close();
        return;
    }
    const std::string aside = freeOrphanName(); // before the file is closed: without a name it stays as it is
    close();
    const auto left = regularFileAt(walOf(m_path));
    if (left && left->identity == wal->identity &&
        renameat2(AT_FDCWD, walOf(m_path).c_str(), AT_FDCWD, aside.c_str(), RENAME_NOREPLACE) != 0) {
        throw storeTrouble(kOpeningLogStore, explainFile(aside, errno));
    }
}

/// Each file that was moved away has a log of its own, and none of them takes another's place.
std::string LogStore::freeOrphanName() const {
    const std::string first = walOf(m_path) + ".orphan";
    for (int number = 1; number <= kMaxOrphans; ++number) {
        std::string name = number == 1 ? first : fmt::format("{}-{}", first, number);
        struct stat facts {};
        if (lstat(name.c_str(), &facts) != 0 && errno == ENOENT) {
            return name;
        }
    }
    throw storeTrouble(kOpeningLogStore, explainOrphans(m_path, kMaxOrphans));
}

void LogStore::close() noexcept {
    m_connection.reset();
}

void LogStore::boundWal() const {
    const std::string walPath = walOf(m_path);
    if (const auto wal = regularFileAt(walPath); wal && wal->size > kMaxWalBytes) {
        // The size tells whether it did what is needed here.
        static_cast<void>(Sentrel::emptyWriteAheadLog(*m_connection->database));
        if (const auto kept = regularFileAt(walPath); kept && kept->size > kMaxWalBytes) {
            throw storeTrouble(kStoring, explainPinned(m_path));
        }
    }
}

/// What the records may take at the end of a transaction that begins now: the limit, or a slice less than there is.
std::uint64_t LogStore::boundFor(const MinuteBook& book) const {
    return std::max(m_limitBytes, book.totalBytes() - std::min(book.totalBytes(), kSliceBytes));
}

void LogStore::dropSlice() {
    boundWal();
    Connection& store = *m_connection;
    {
        Sentrel::WriteTransaction transaction(*store.database);
        MinuteBook book = store.takeBook();
        const std::uint64_t bound = boundFor(book);
        while (book.totalBytes() > bound) {
            store.rows.makeRoom(book);
        }
        transaction.commit();
        store.book = std::move(book);
    }
    store.noteWal(m_path);
    // So that all slices together need the room of one. A reader may prevent it, which boundWal tells in time.
    static_cast<void>(Sentrel::emptyWriteAheadLog(*store.database));
}

std::vector<std::uint64_t> LogStore::write(std::span<const LogRecord> records) {
    boundWal();
    Connection& store = *m_connection;
    Sentrel::WriteTransaction transaction(*store.database);
    MinuteBook book = store.takeBook();
    const std::uint64_t bound = boundFor(book);
    const std::int64_t now = microsecondsNow();
    std::vector<std::uint64_t> ids;
    ids.reserve(records.size());
    for (const LogRecord& record : records) {
        // Asked inside the transaction: the first sending of a record may stand in this very batch.
        if (record.number && record.number->number <= store.rows.lastNumberOf(record.number->instance)) {
            ids.push_back(bus::kAlreadyStored);
            continue;
        }
        const LogRow row = rowOf(record);
        const std::uint64_t bytes = row.cost(record);
        // Room is made first, so that the new record goes into pages that the old ones leave.
        while (book.totalBytes() + bytes > bound && !book.isEmpty()) {
            store.rows.makeRoom(book);
        }
        ids.push_back(store.rows.insert(record, row, now));
        if (record.number) {
            store.rows.noteNumber(*record.number, ids.back());
        }
        book.add(MinuteBook::minuteOf(now), bytes, 1, row.kind ? 1 : 0);
    }
    transaction.commit();
    store.book = std::move(book);
    store.noteWal(m_path);
    return ids;
}

void LogStore::fail(const std::string& doing, const Sentrel::DatabaseError& error) {
    // A lock passes and leaves the connection as it was. After anything else the file is looked at afresh.
    if (error.code() != SQLITE_BUSY) {
        close();
    }
    throw storeTrouble(doing, explain(m_path, error));
}

} // namespace HVB::hub
