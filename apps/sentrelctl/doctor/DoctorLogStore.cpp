// The doctor's look at hvbd's log store: the file, and what is in it.
//
// What must stay so:
// - The file is opened as its owner, in a child, and for reading alone. Its owner may be an unprivileged user who could
//   put anything there, and what SQLite makes beside the file then belongs to that user.
// - hvbd is asked as well, for it alone knows why it refuses a store that is a whole database: one of a later version,
//   or another program's.
#include "apps/sentrelctl/clients/HubClient.h"
#include "apps/sentrelctl/doctor/DoctorProcesses.h"
#include "base/Database.h"
#include "base/Paths.h"

#include <cerrno>
#include <fmt/format.h>
#include <unistd.h>

namespace Sentrel::ctl {
namespace {

constexpr const char* kStartAnew =
    "Stop hvbd, move the file and what begins with its name away, and start hvbd, which makes a new one; the daemon "
    "keeps new reports until then";

int lookThrough(const std::string& path) {
    try {
        const DatabasePtr database = openDatabaseReadOnly(path);
        Statement check(*database, "pragma quick_check(1)");
        return check.step() && check.bytes(0) == "ok" ? StoreIsWhole : StoreIsDamaged;
    } catch (const DatabaseError& error) {
        switch (error.code()) {
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB:
            return StoreIsDamaged;
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            return StoreIsLocked;
        default:
            return StoreCannotBeOpened;
        }
    }
}

/// Why hvbd cannot use its store, in its own words. None when it can, or does not tell.
std::optional<std::string> troubleOfHvbd(double timeout) {
    try {
        HubClient(paths::hubSocket(), timeout).readLog(0, 1, true);
        return std::nullopt;
    } catch (const HVB::HVBException& error) {
        switch (error.code()) {
        case -EACCES:
        case -EHOSTUNREACH:
        case -ETIMEDOUT:
        case -ECONNRESET:
        case -ECONNREFUSED:
        case -ENOENT:
            return std::nullopt; // other checks tell of that
        default:
            return error.message();
        }
    }
}

/// What the owner of the file sees in it. None when this user cannot look.
std::optional<Diagnosis> ownersView(const std::string& path, const struct stat& facts, double timeout) {
    const std::optional<StoreProbe> answer = probedStore(path, facts, timeout);
    if (!answer) {
        return std::nullopt;
    }
    switch (*answer) {
    case StoreIsWhole:
        return healthy(path + " is whole");
    case StoreIsDamaged:
        return failed("log-store-damaged", path + " is damaged: reports cannot be stored or shown", kStartAnew);
    default:
        return failed("log-store-unusable",
                      fmt::format("{} cannot be opened by {}, its owner", path, userName(facts.st_uid)),
                      "See that this user may write into its directory, and that the disk is not full");
    }
}

} // namespace

std::optional<StoreProbe> probedStore(const std::string& path, const struct stat& facts, double timeout) {
    const uid_t self = ::geteuid();
    if (self != 0 && self != facts.st_uid) {
        return std::nullopt;
    }
    const std::optional<uid_t> owner = self == 0 ? std::optional(facts.st_uid) : std::nullopt;
    const std::optional<int> answer = inChild(owner, timeout, [&path] { return lookThrough(path); });
    if (!answer) {
        throw CannotSee(fmt::format("{} takes longer than {} s to look through: give --timeout", path, timeout));
    }
    if (*answer == StoreIsLocked) {
        throw CannotSee(path + " is locked: look again");
    }
    return static_cast<StoreProbe>(*answer);
}

std::optional<uid_t> ownerOfStores(const std::string& path) {
    if (const std::optional<uid_t> hub = hubUser()) {
        return hub;
    }
    const std::optional<struct stat> directory = factsOf(directoryOf(path));
    return directory && directory->st_uid != 0 ? std::optional(directory->st_uid) : std::nullopt;
}

Diagnosis logStore(double timeout) {
    constexpr mode_t others = S_IRWXO;
    const std::string path = paths::hubLogStore();
    const std::optional<struct stat> facts = factsOf(path);
    if (!facts) {
        if (!isOk(hvbd, timeout)) {
            throw CannotSee("there is no " + path + " yet; hvbd makes it");
        }
        return failed("log-store-missing", fmt::format("there is no {}, although hvbd runs", path),
                      "Let hvbd's user write into its directory, and restart hvbd");
    }
    if (!S_ISREG(facts->st_mode)) {
        return failed("log-store-no-file", path + " is no regular file", "Find out who put it there, and move it away");
    }
    if ((facts->st_mode & others) != 0) {
        return failed(
            "log-store-open",
            fmt::format("other users may use {}, which holds what people browsed: it has {}", path, modeText(*facts)),
            "chmod o= " + path + "*");
    }
    if (const std::optional<uid_t> owner = ownerOfStores(path); owner && *owner != facts->st_uid) {
        return failed("log-store-owner", fmt::format("{} is {}'s and not hvbd's", path, userName(facts->st_uid)),
                      fmt::format("chown {} {}*", userName(*owner), path));
    }
    if (const std::string bits = lockedBits(path); !bits.empty()) {
        return failed("log-store-immutable", fmt::format("{} is {}: no report can be stored", path, bits),
                      fmt::format("chattr -i -a {}, and ask who set that", path));
    }
    return healthy(fmt::format("{} is {}'s, {}", path, userName(facts->st_uid), modeText(*facts)));
}

Diagnosis logContent(double timeout) {
    const std::string path = paths::hubLogStore();
    const std::optional<struct stat> facts = factsOf(path);
    if (!facts || !S_ISREG(facts->st_mode)) {
        throw CannotSee("there is no log store");
    }
    const std::optional<Diagnosis> seen = ownersView(path, *facts, timeout);
    if (seen && seen->verdict != Verdict::Ok) {
        return *seen;
    }
    if (const std::optional<std::string> trouble = troubleOfHvbd(timeout)) {
        return failed("log-store-unusable", "hvbd cannot use its store: " + *trouble, kStartAnew);
    }
    if (!seen) {
        throw CannotSee("only root and hvbd's user see what is in " + path);
    }
    return *seen;
}

} // namespace Sentrel::ctl
