// Requests and grants as rows. There are few of them and they change seldom, so statements are prepared for each use,
// and every change is a synced transaction of its own.
//
// The order of writing is what keeps a list clean. A grant's row is there before its entry is, with what stood in the
// list before; a crash then leaves a row that was never confirmed, and such a row is due at once. A row goes only when
// the entry has gone. So no entry stays without a row that remembers it.
//
// A file that is taken away or goes bad is an error of that call; the next call opens what is there then.
#include "apps/hvbd/AccessBook.h"

#include "apps/hvbd/HvbdLimits.h"
#include "apps/hvbd/LogStoreTexts.h"
#include "apps/hvbd/StoreFile.h"
#include "base/PrintableText.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <limits>
#include <system_error>
#include <utility>

namespace HVB::hub {
namespace {

using Sentrel::Statement;

constexpr std::int64_t kBookApplicationId = 0x48564252; ///< "HVBR"
constexpr std::int64_t kBookVersion = 1;
// The ids are AUTOINCREMENT so that a number that a person has noted never means another request.
constexpr const char* kBookSchema =
    "CREATE TABLE request(id INTEGER PRIMARY KEY AUTOINCREMENT, user INTEGER NOT NULL, asked_at INTEGER NOT NULL,"
    " url BLOB NOT NULL, reason BLOB NOT NULL, state INTEGER NOT NULL DEFAULT 0, answered_at INTEGER NOT NULL DEFAULT "
    "0,"
    " answered_by INTEGER, answer BLOB NOT NULL DEFAULT x'', until INTEGER NOT NULL DEFAULT 0);"
    "CREATE TABLE granted(id INTEGER PRIMARY KEY AUTOINCREMENT, request INTEGER NOT NULL, user INTEGER NOT NULL,"
    " entry BLOB NOT NULL, granted_at INTEGER NOT NULL, granted_by INTEGER NOT NULL, until INTEGER NOT NULL,"
    " state INTEGER NOT NULL, was_there INTEGER NOT NULL, action INTEGER NOT NULL);"
    "PRAGMA application_id=1213612626; PRAGMA user_version=1";
static_assert(kBookApplicationId == 1213612626, "the number in kBookSchema");

constexpr auto kOpen = static_cast<std::int64_t>(bus::RequestState::Open);
constexpr auto kGranted = static_cast<std::int64_t>(bus::RequestState::Granted);
constexpr auto kDenied = static_cast<std::int64_t>(bus::RequestState::Denied);

/// Of a row of granted.
enum GrantState : std::int64_t { Entering = 0, InForce = 1, Ending = 2 };

constexpr const char* kRequestColumns =
    "SELECT id, user, asked_at, url, reason, state, answered_at, answer, until FROM request ";
constexpr const char* kSameRequest = "SELECT id FROM request WHERE user = ?1 AND url = ?2 AND state = 0";
constexpr const char* kOpenOfUser = "SELECT count(*) FROM request WHERE user = ?1 AND state = 0";
constexpr const char* kInsertRequest = "INSERT INTO request(user, asked_at, url, reason) VALUES(?1, ?2, ?3, ?4)";
constexpr const char* kForgetOldest =
    "DELETE FROM request WHERE id = (SELECT id FROM request WHERE state != 0 ORDER BY answered_at, id LIMIT 1)";
constexpr const char* kAnswerRequest =
    "UPDATE request SET state = ?2, answered_at = ?3, answered_by = ?4, answer = ?5, until = ?6 WHERE id = ?1";
constexpr const char* kInsertGrant =
    "INSERT INTO granted(request, user, entry, granted_at, granted_by, until, state, was_there, action)"
    " SELECT id, user, ?2, ?3, ?4, ?5, 0, ?6, ?7 FROM request WHERE id = ?1";
constexpr const char* kStandingOfEntry = "SELECT was_there, action FROM granted WHERE entry = ?1 ORDER BY id LIMIT 1";
constexpr const char* kGrantById = "SELECT request, entry, until, granted_by FROM granted WHERE id = ?1";
constexpr const char* kReplaceOthers = "DELETE FROM granted WHERE id != ?1 AND entry = ?2";
constexpr const char* kSetGrantState = "UPDATE granted SET state = ?2 WHERE id = ?1";
constexpr const char* kEndRequest = "UPDATE request SET until = ?2 WHERE state = 1 AND id = ?1";
constexpr const char* kForgetGrant = "DELETE FROM granted WHERE id = ?1";
constexpr const char* kReadGrants = "SELECT id, request, user, entry, granted_at, until, state FROM granted"
                                    " WHERE id > ?1 AND state != 0 ORDER BY id LIMIT ?2";
// The entry of one that came to nothing stays when it is that of another in force: as if allowed by hand before.
constexpr const char* kDue =
    "SELECT id, entry, was_there OR isOthers, CASE WHEN isOthers THEN 0 ELSE action END FROM"
    " (SELECT *, state = 0 AND EXISTS(SELECT 1 FROM granted AS other WHERE other.entry = one.entry AND other.state = 1"
    " AND (other.until = 0 OR other.until > ?1)) AS isOthers FROM granted AS one"
    " WHERE state != 1 OR (until != 0 AND until <= ?1)) ORDER BY id LIMIT ?2";
constexpr const char* kNextEnd = "SELECT count(*), min(CASE WHEN state = 1 THEN until ELSE 1 END) FROM granted"
                                 " WHERE state != 1 OR until != 0";

std::int64_t keyOf(std::uint64_t id) {
    // What is no number of a row is nobody's: rows count from 1.
    return std::in_range<std::int64_t>(id) ? static_cast<std::int64_t>(id) : 0;
}

/// A number of a row. @throws DatabaseError when there can be no such number: the file is damaged, or somebody else
/// wrote it.
template <class Number>
Number numberIn(Statement& row, int column, Number most = std::numeric_limits<Number>::max()) {
    const std::int64_t number = row.integer(column);
    if (!std::in_range<Number>(number) || std::cmp_greater(number, most)) {
        throw Sentrel::DatabaseError(SQLITE_CORRUPT, 0, "a row has a number that cannot be");
    }
    return static_cast<Number>(number);
}

/// A text of a row, fit for the bus. @throws DatabaseError when it cannot have come from there.
std::string textIn(Statement& row, int column) {
    std::string text(row.bytes(column));
    if (text.find('\0') != std::string::npos || Sentrel::text::validUtf8(text) != text) {
        throw Sentrel::DatabaseError(SQLITE_CORRUPT, 0, "a row has a text that cannot be");
    }
    return text;
}

bus::AccessRequest requestIn(Statement& row) {
    bus::AccessRequest request;
    request.id = numberIn<std::uint64_t>(row, 0);
    request.user = numberIn<std::uint32_t>(row, 1);
    request.askedAt = row.integer(2);
    request.url = textIn(row, 3);
    request.reason = textIn(row, 4);
    request.state = static_cast<bus::RequestState>(numberIn<std::uint8_t>(row, 5, kDenied));
    request.answeredAt = row.integer(6);
    request.answer = textIn(row, 7);
    request.until = row.integer(8);
    return request;
}

void run(Statement& statement) {
    while (statement.step()) {
    }
}

std::int64_t count(Statement statement) {
    return statement.step() ? statement.integer(0) : 0;
}

bus::AccessRequest openRequestIn(sqlite3& database, std::uint64_t id) {
    Statement row(database, (std::string(kRequestColumns) + "WHERE id = ?1").c_str());
    row.bind(1, keyOf(id));
    if (!row.step()) {
        throw AccessRefused(
            fmt::format("there is no request {}: 'sentrelctl requests list --all' tells which there are", id));
    }
    bus::AccessRequest request = requestIn(row);
    if (request.state != bus::RequestState::Open) {
        throw AccessRefused(fmt::format("request {} was {} already", id, bus::stateWord(request.state)));
    }
    return request;
}

struct Answer {
    std::int64_t state;
    std::string_view text;
    std::int64_t until;
};

void answerRequest(sqlite3& database, std::int64_t id, const Answer& answer, std::int64_t by, std::int64_t now) {
    Statement update(database, kAnswerRequest);
    update.bind(1, id);
    update.bind(2, answer.state);
    update.bind(3, now);
    update.bind(4, by);
    update.bind(5, answer.text);
    update.bind(6, answer.until);
    run(update);
}

void setGrantState(sqlite3& database, std::int64_t id, GrantState state) {
    Statement update(database, kSetGrantState);
    update.bind(1, id);
    update.bind(2, state);
    run(update);
}

/// What stood in the list before this grant and all those of the same entry: also of one that is being taken out, or
/// whose entry came after nobody waited for it any more.
EntryStanding standingBefore(sqlite3& database, const NewGrant& grant) {
    Statement earlier(database, kStandingOfEntry);
    earlier.bind(1, grant.entry);
    if (!grant.before.isAllowed() || !earlier.step()) {
        return grant.before;
    }
    return {earlier.integer(0) != 0, static_cast<std::int32_t>(earlier.integer(1))};
}

/// Makes the tables in an empty file. @throws AccessBookError for a file with others.
void layOut(sqlite3& database, const std::string& path) {
    const std::int64_t owner = Sentrel::queryInteger(database, "PRAGMA application_id");
    const std::int64_t version = Sentrel::queryInteger(database, "PRAGMA user_version");
    if (owner == 0 && version == 0 && Sentrel::queryInteger(database, "SELECT count(*) FROM sqlite_schema") == 0) {
        Sentrel::WriteTransaction transaction(database);
        Sentrel::execute(database, kBookSchema);
        transaction.commit();
    } else if (owner != kBookApplicationId) {
        throw AccessBookError(fmt::format("{} is the database of another program. Move it away.", path));
    } else if (version != kBookVersion) {
        throw AccessBookError(
            fmt::format("{} was written by a newer hvbd (layout {}). Install that one again.", path, version));
    }
}

} // namespace

AccessBook::AccessBook(std::string path) : m_path(std::move(path)) {}

AccessBook::~AccessBook() = default;

/// Whether there is no file yet. To ask makes none.
bool AccessBook::isEmpty() const {
    struct stat facts {};
    return m_database == nullptr && lstat(m_path.c_str(), &facts) != 0 && errno == ENOENT;
}

sqlite3& AccessBook::database() {
    if (m_database == nullptr) {
        makeStoreFile(m_path);
        Sentrel::DatabasePtr opened = Sentrel::openDatabase(resolvedDirectory(m_path));
        Sentrel::setLockWait(*opened, kStoreLockWait);
        Sentrel::execute(*opened, "PRAGMA trusted_schema=OFF; PRAGMA cell_size_check=ON; PRAGMA synchronous=EXTRA");
        layOut(*opened, m_path);
        m_database = std::move(opened);
    }
    return *m_database;
}

/// Runs @p work on the open file. After trouble the file is looked at afresh.
template <class Work>
auto AccessBook::use(const Work& work) {
    try {
        return work(database());
    } catch (const Sentrel::DatabaseError& error) {
        m_database.reset();
        throw AccessBookError(explain(m_path, error));
    } catch (const std::system_error& error) {
        m_database.reset();
        throw AccessBookError(explainFile(m_path, error.code().value()));
    }
}

std::uint64_t AccessBook::ask(uid_t user, std::string_view url, std::string_view reason, std::int64_t now) {
    return use([&](sqlite3& database) {
        Sentrel::WriteTransaction transaction(database);
        Statement same(database, kSameRequest);
        same.bind(1, std::int64_t{user});
        same.bind(2, url);
        if (same.step()) {
            return static_cast<std::uint64_t>(same.integer(0));
        }
        Statement open(database, kOpenOfUser);
        open.bind(1, std::int64_t{user});
        if (open.step() && open.integer(0) >= kMaxOpenRequestsOfUser) {
            throw AccessRefused(fmt::format(
                "{} requests of this user wait for an answer, and no more may: wait, or speak to an administrator",
                kMaxOpenRequestsOfUser));
        }
        makeRoom();
        Statement insert(database, kInsertRequest);
        insert.bind(1, std::int64_t{user});
        insert.bind(2, now);
        insert.bind(3, url);
        insert.bind(4, reason);
        run(insert);
        transaction.commit();
        return static_cast<std::uint64_t>(Sentrel::lastInsertedRow(database));
    });
}

/// For one more request, in the caller's transaction.
void AccessBook::makeRoom() {
    sqlite3& database = *m_database;
    while (count(Statement(database, "SELECT count(*) FROM request")) >= kMaxRequests) {
        Statement forget(database, kForgetOldest);
        run(forget);
        if (sqlite3_changes(&database) == 0) {
            throw AccessRefused(
                fmt::format("{} requests of all users wait for an answer, and no more may: speak to an administrator",
                            kMaxRequests));
        }
    }
}

std::vector<bus::AccessRequest> AccessBook::requests(std::uint64_t after, std::uint32_t limit,
                                                     std::optional<uid_t> user) {
    if (isEmpty()) {
        return {};
    }
    return use([&](sqlite3& database) {
        Statement rows(
            database,
            (std::string(kRequestColumns) + "WHERE id > ?1 AND (?2 < 0 OR user = ?2) ORDER BY id LIMIT ?3").c_str());
        rows.bind(1, keyOf(after));
        rows.bind(2, user ? std::int64_t{*user} : std::int64_t{-1});
        rows.bind(3, std::int64_t{limit});
        std::vector<bus::AccessRequest> found;
        while (rows.step()) {
            found.push_back(requestIn(rows));
        }
        return found;
    });
}

bus::AccessRequest AccessBook::openRequest(std::uint64_t id) {
    return use([id](sqlite3& database) { return openRequestIn(database, id); });
}

void AccessBook::deny(std::uint64_t id, std::string_view why, uid_t by, std::int64_t now) {
    use([&](sqlite3& database) {
        Sentrel::WriteTransaction transaction(database);
        static_cast<void>(openRequestIn(database, id));
        answerRequest(database, keyOf(id), {kDenied, why, 0}, by, now);
        transaction.commit();
    });
}

std::uint64_t AccessBook::beginGrant(const NewGrant& grant, uid_t by, std::int64_t now) {
    return use([&](sqlite3& database) {
        Sentrel::WriteTransaction transaction(database);
        static_cast<void>(openRequestIn(database, grant.request));
        if (count(Statement(database, "SELECT count(*) FROM granted")) >= kMaxGrants) {
            throw AccessRefused(fmt::format("there are {} grants, and no more may be: revoke some, or enter the site "
                                            "with 'sentrelctl list allow'",
                                            kMaxGrants));
        }
        const EntryStanding before = standingBefore(database, grant);
        Statement insert(database, kInsertGrant);
        insert.bind(1, keyOf(grant.request));
        insert.bind(2, grant.entry);
        insert.bind(3, now);
        insert.bind(4, std::int64_t{by});
        insert.bind(5, grant.until);
        insert.bind(6, std::int64_t{before.isThere ? 1 : 0});
        insert.bind(7, std::int64_t{before.action});
        run(insert);
        transaction.commit();
        return static_cast<std::uint64_t>(Sentrel::lastInsertedRow(database));
    });
}

void AccessBook::confirmGrant(std::uint64_t id, std::int64_t now) {
    use([&](sqlite3& database) {
        Sentrel::WriteTransaction transaction(database);
        Statement grant(database, kGrantById);
        grant.bind(1, keyOf(id));
        if (!grant.step()) {
            throw AccessBookError(fmt::format("{} has lost grant {}, whose entry is in the list.", m_path, id));
        }
        const std::string entry(grant.bytes(1));
        setGrantState(database, keyOf(id), InForce);
        answerRequest(database, grant.integer(0), {kGranted, entry, grant.integer(2)}, grant.integer(3), now);
        Statement others(database, kReplaceOthers);
        others.bind(1, keyOf(id));
        others.bind(2, entry);
        run(others);
        grant.reset();
        transaction.commit();
    });
}

void AccessBook::endGrant(std::uint64_t id, std::int64_t now) {
    use([&](sqlite3& database) {
        Sentrel::WriteTransaction transaction(database);
        Statement grant(database, kGrantById);
        grant.bind(1, keyOf(id));
        if (!grant.step()) {
            throw AccessRefused(
                fmt::format("there is no grant {}: 'sentrelctl requests grants' tells which there are", id));
        }
        setGrantState(database, keyOf(id), Ending);
        Statement request(database, kEndRequest);
        request.bind(1, grant.integer(0));
        request.bind(2, now);
        run(request);
        grant.reset();
        transaction.commit();
    });
}

void AccessBook::takeOff(std::span<const GrantEnd> ends) {
    use([&](sqlite3& database) {
        Sentrel::WriteTransaction transaction(database);
        for (const GrantEnd& end : ends) {
            Statement forget(database, kForgetGrant);
            forget.bind(1, keyOf(end.grant));
            run(forget);
        }
        transaction.commit();
    });
}

std::vector<bus::AccessGrant> AccessBook::grants(std::uint64_t after, std::uint32_t limit) {
    if (isEmpty()) {
        return {};
    }
    return use([&](sqlite3& database) {
        Statement rows(database, kReadGrants);
        rows.bind(1, keyOf(after));
        rows.bind(2, std::int64_t{limit});
        std::vector<bus::AccessGrant> found;
        while (rows.step()) {
            bus::AccessGrant grant;
            grant.id = numberIn<std::uint64_t>(rows, 0);
            grant.request = numberIn<std::uint64_t>(rows, 1);
            grant.user = numberIn<std::uint32_t>(rows, 2);
            grant.entry = textIn(rows, 3);
            grant.grantedAt = rows.integer(4);
            grant.until = rows.integer(5);
            grant.isEnding = rows.integer(6) == Ending;
            found.push_back(std::move(grant));
        }
        return found;
    });
}

std::vector<GrantEnd> AccessBook::due(std::int64_t now) {
    if (isEmpty()) {
        return {};
    }
    return use([&](sqlite3& database) {
        Statement rows(database, kDue);
        rows.bind(1, now);
        rows.bind(2, kMaxEndsOfChange);
        std::vector<GrantEnd> found;
        while (rows.step()) {
            found.push_back({numberIn<std::uint64_t>(rows, 0),
                             textIn(rows, 1),
                             {rows.integer(2) != 0, numberIn<std::int32_t>(rows, 3)}});
        }
        return found;
    });
}

std::optional<std::int64_t> AccessBook::nextEnd() {
    if (isEmpty()) {
        return std::nullopt;
    }
    return use([](sqlite3& database) {
        Statement row(database, kNextEnd);
        const bool isAny = row.step() && row.integer(0) > 0;
        return isAny ? std::optional(row.integer(1)) : std::nullopt;
    });
}

} // namespace HVB::hub
