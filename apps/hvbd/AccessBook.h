// What users ask for, and what is granted: the rows of both, in a file of hvbd's own.
#pragma once

#include "base/Database.h"
#include "platform/hvbhelpers/AccessCalls.h"

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace HVB::hub {

/// What the caller cannot have. The text says why, and what to do.
class AccessRefused : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The file cannot be used. The text says why, and what to do.
class AccessBookError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// How an entry stands in the list of allowed and blocked sites. Threads: a plain value. Owner: the holder.
struct EntryStanding {
    bool isThere = false;
    std::int32_t action = 0; ///< 0 allows, any other value blocks

    bool isAllowed() const { return isThere && action == 0; }
    bool operator==(const EntryStanding&) const = default;
};

/// A grant that is over: what to take out, and what was there before it. Threads: a plain value. Owner: the holder.
struct GrantEnd {
    std::uint64_t grant = 0;
    std::string entry;
    EntryStanding before;

    bool operator==(const GrantEnd&) const = default;
};

/// A grant that begins. Threads: a plain value. Owner: the holder.
struct NewGrant {
    std::uint64_t request = 0;
    std::string entry;
    std::int64_t until = 0; ///< 0: for good
    EntryStanding before;   ///< as the list has it now
};

/// Requests and grants in one SQLite file, which is made with the first request. The file is opened with the first use
/// and again after any trouble. One that is damaged, newer or somebody else's is never written to.
///
/// A grant is written down before its entry is made, and taken off when the entry is gone: whatever happens in between,
/// what is left to do stands in the file.
///
/// Bound: HvbdLimits.h. Of answered requests the one that was answered first goes first. Times are microseconds since
/// the epoch, and given by the caller.
///
/// Threads: one at a time. Owner: the program. All operations throw AccessBookError.
class AccessBook {
public:
    explicit AccessBook(std::string path);
    ~AccessBook();
    AccessBook(const AccessBook&) = delete;
    AccessBook& operator=(const AccessBook&) = delete;

    /// Writes a request down. @return its id: of the one that is open for this URL, when there is one.
    /// @throws AccessRefused beyond the bounds.
    std::uint64_t ask(uid_t user, std::string_view url, std::string_view reason, std::int64_t now);

    /// In ascending order, at most @p limit behind @p after; of all users, or of one.
    std::vector<bus::AccessRequest> requests(std::uint64_t after, std::uint32_t limit,
                                             std::optional<uid_t> user = std::nullopt);
    /// @throws AccessRefused when there is no such request, or it was answered.
    bus::AccessRequest openRequest(std::uint64_t id);
    /// @throws AccessRefused as openRequest does.
    void deny(std::uint64_t id, std::string_view why, uid_t by, std::int64_t now);

    /// Writes a grant down whose entry is about to be made. Another grant of the entry knows better what was there
    /// before both. @return its id. @throws AccessRefused beyond the bounds.
    std::uint64_t beginGrant(const NewGrant& grant, uid_t by, std::int64_t now);
    /// The entry is there: the request is granted. The grant takes the place of others of the same entry.
    void confirmGrant(std::uint64_t id, std::int64_t now);
    /// Has the grant end now. @throws AccessRefused when there is none.
    void endGrant(std::uint64_t id, std::int64_t now);
    /// Takes off grants whose entries are gone.
    void takeOff(std::span<const GrantEnd> ends);

    std::vector<bus::AccessGrant> grants(std::uint64_t after, std::uint32_t limit);
    /// The grants that are over, or whose entry was never confirmed; at most kMaxEndsOfChange. Requires that no grant
    /// is being made.
    std::vector<GrantEnd> due(std::int64_t now);
    /// When the next grant is over; none when none will be. A time that has passed when one is over already.
    std::optional<std::int64_t> nextEnd();

private:
    bool isEmpty() const;
    sqlite3& database();
    template <class Work>
    auto use(const Work& work);
    void makeRoom();

    const std::string m_path;        ///< constant after construction
    Sentrel::DatabasePtr m_database; ///< plain, single access; null while the file is not open
};

} // namespace HVB::hub
