// The doctor's look at what the browser side stands on besides the settings: hvbd's store of requests and grants, and
// the rating lists. Neither need be there: both are made with the first use.
//
// What must stay so:
// - The store is opened as the log store is: as its owner, in a child, for reading. hvbd is asked as well, for it alone
//   knows why it refuses a store that is whole.
// - The lists are read by the class that browsers' hosts read them with. A host runs as any user, so what this user can
//   read is not enough: the mode has to let all of them.
#include "apps/sentrelctl/doctor/DoctorProcesses.h"
#include "base/Paths.h"
#include "browser/ratings/RatingLists.h"
#include "platform/hvbhelpers/AccessCalls.h"
#include "platform/hvbhelpers/HubProtocol.h"

#include <chrono>
#include <fmt/format.h>
#include <unistd.h>

namespace Sentrel::ctl {
namespace {

constexpr const char* kMoveRequestsAway = "Read 'sentrelctl requests grants' while it answers, and take the entries "
                                          "out of the list that are to go; then move "
                                          "the file and what begins with its name away: hvbd makes a new one";
constexpr const char* kImportAgain = "Run 'sentrelctl ratings update', or import the lists again, as root";

/// Why hvbd cannot use its store, in its own words. None when it can, or does not tell.
std::optional<std::string> troubleWithRequests(double timeout) {
    const auto deadline = std::chrono::steady_clock::now() +
                          std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::duration<double>(timeout));
    try {
        const HVB::bus::BusPtr bus = HVB::bus::openBus(paths::hubSocket(), deadline);
        HVB::bus::readRequests(*bus, deadline);
    } catch (const HVB::bus::CallError& error) {
        return error.name() == HVB::bus::kErrorRequestStore ? std::optional(error.message()) : std::nullopt;
    } catch (const HVB::HVBException&) {
        return std::nullopt; // other checks tell of that
    }
    return std::nullopt;
}

/// What is wrong with the file itself; none when nothing is.
std::optional<Diagnosis> faultOfRequestFile(const std::string& path, const struct stat& facts) {
    if (!S_ISREG(facts.st_mode)) {
        return failed("request-store-no-file", path + " is no regular file",
                      "Find out who put it there, and move it away");
    }
    if ((facts.st_mode & S_IRWXO) != 0) {
        return failed(
            "request-store-open",
            fmt::format("other users may use {}, which holds what people asked for: it has {}", path, modeText(facts)),
            "chmod o= " + path + "*");
    }
    if (const std::optional<uid_t> owner = ownerOfStores(path); owner && *owner != facts.st_uid) {
        return failed("request-store-owner", fmt::format("{} is {}'s and not hvbd's", path, userName(facts.st_uid)),
                      fmt::format("chown {} {}*", userName(*owner), path));
    }
    if (const std::string bits = lockedBits(path); !bits.empty()) {
        return failed("request-store-immutable", fmt::format("{} is {}: no request can be stored", path, bits),
                      fmt::format("chattr -i -a {}, and ask who set that", path));
    }
    return std::nullopt;
}

/// What keeps the hosts of this machine's users from the lists; none when nothing does.
std::optional<Diagnosis> faultOfRatingFile(const std::string& path, const struct stat& facts) {
    if (!S_ISREG(facts.st_mode)) {
        return failed("rating-lists-no-file", path + " is no regular file",
                      "Find out who put it there, move it away, and run 'sentrelctl ratings update' as root");
    }
    if (othersCanWrite(facts) || (facts.st_uid != 0 && facts.st_uid != ::geteuid())) {
        return failed("rating-lists-open",
                      fmt::format("others than root may write {}, so no browser uses it: it is {}'s, {}", path,
                                  userName(facts.st_uid), modeText(facts)),
                      kImportAgain);
    }
    const std::optional<struct stat> directory = factsOf(directoryOf(path));
    if ((facts.st_mode & S_IROTH) == 0 || !directory || (directory->st_mode & S_IXOTH) == 0) {
        return failed("rating-lists-unreadable", fmt::format("browsers of other users cannot read {}", path),
                      fmt::format("chmod a+r {}, and chmod a+rx {}", path, directoryOf(path)));
    }
    return std::nullopt;
}

} // namespace

Diagnosis requestStore(double timeout) {
    const std::string path = paths::hubRequestStore();
    const std::optional<struct stat> facts = factsOf(path);
    if (!facts) {
        return healthy(fmt::format("there is no {}: nobody has asked for access", path));
    }
    if (std::optional<Diagnosis> fault = faultOfRequestFile(path, *facts)) {
        return *std::move(fault);
    }
    const std::optional<StoreProbe> seen = probedStore(path, *facts, timeout);
    if (seen == StoreIsDamaged) {
        return failed("request-store-damaged", path + " is damaged: nobody can ask for access, and grants do not end",
                      kMoveRequestsAway);
    }
    if (seen == StoreCannotBeOpened) {
        return failed("request-store-unusable",
                      fmt::format("{} cannot be opened by {}, its owner", path, userName(facts->st_uid)),
                      "See that this user may write into its directory, and that the disk is not full");
    }
    if (const std::optional<std::string> trouble = troubleWithRequests(timeout)) {
        return failed("request-store-unusable", "hvbd cannot use its store of requests: " + *trouble,
                      kMoveRequestsAway);
    }
    if (!seen) {
        throw CannotSee("only root and hvbd's user see what is in " + path);
    }
    return healthy(path + " is whole");
}

Diagnosis ratingLists(double /*timeout*/) {
    const std::string path = paths::ratingDatabase();
    const std::optional<struct stat> facts = factsOf(path);
    if (!facts) {
        return healthy("no rating list was imported: only the settings' own lists decide");
    }
    if (std::optional<Diagnosis> fault = faultOfRatingFile(path, *facts)) {
        return *std::move(fault);
    }
    const ratings::RatingLists lists(path);
    const ratings::RatingStatus status = lists.status();
    if (lists.database() == nullptr) {
        return failed("rating-lists-unusable", fmt::format("{}: {}", path, status.because), kImportAgain);
    }
    if (!status.isReachable) {
        return warning("rating-lists-old",
                       status.because + ", so sites count as those that nobody could be asked about",
                       "Fetch the lists anew, then run 'sentrelctl ratings update' as root");
    }
    return healthy(fmt::format("{} has {} lists", path, status.lists.size()));
}

} // namespace Sentrel::ctl
