// What the doctor tries out when it is asked to: --probe.
//
// The other checks change nothing. These two leave a trace: one report in the log, marked as a probe, and a short use
// of the settings file's write lock. Together they go the ways that all the rest depends on: from the event socket into
// the log store, and from the daemon's user into the settings file.
//
// What must stay so:
// - The record carries a mark that was never used before, so that an older probe is not taken for this one. The host of
//   its URL ends with .invalid, which is nobody's.
// - The lock is taken as the daemon's user, in a child, and nothing is written under it. A child that is ended at the
//   deadline gives the lock back too.
#include "apps/sentrelctl/Session.h"
#include "apps/sentrelctl/clients/EventRecord.h"
#include "apps/sentrelctl/clients/EventSocket.h"
#include "apps/sentrelctl/clients/HubClient.h"
#include "apps/sentrelctl/doctor/DoctorSettings.h"
#include "apps/sentrelctl/terminal/Failure.h"
#include "base/Database.h"
#include "base/Paths.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fmt/format.h>
#include <random>
#include <thread>
#include <unistd.h>

namespace Sentrel::ctl {
namespace {

constexpr std::chrono::milliseconds kPause{50};
constexpr std::uint32_t kRecordsAtOnce = 1000;

std::string newMark() {
    std::random_device random;
    return fmt::format("http://doctor-probe.invalid/{:08x}{:08x}", random(), random());
}

std::uint64_t lastId(double timeout) {
    try {
        const std::vector<StoredRecord> last = HubClient(paths::hubSocket(), timeout).readLog(0, 1, true);
        return last.empty() ? 0 : last.back().id;
    } catch (const HVB::HVBException& error) {
        throw CannotSee(error.code() == -EACCES ? "only root and the administrators may read the log"
                                                : "the log cannot be read: " + error.message());
    }
}

bool has(const StoredRecord& record, const std::wstring& mark) {
    return record.text.find(mark) != std::wstring::npos || record.detailText.find(mark) != std::wstring::npos;
}

/// Waits until a record behind @p after has the mark. @return whether it came.
bool awaitRecord(std::uint64_t after, const std::string& mark, double timeout) {
    const auto deadline = deadlineAfter(timeout);
    const std::wstring wide(mark.begin(), mark.end());
    for (;;) {
        const std::vector<StoredRecord> page =
            HubClient(paths::hubSocket(), timeout).readLog(after, kRecordsAtOnce, false);
        if (std::any_of(page.begin(), page.end(), [&](const StoredRecord& each) { return has(each, wide); })) {
            return true;
        }
        if (page.empty() && std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        if (page.empty()) {
            std::this_thread::sleep_for(kPause);
        } else {
            after = page.back().id;
        }
    }
}

Diagnosis probeEvent(double timeout) {
    const std::uint64_t before = lastId(timeout);
    const std::string mark = newMark();
    RecordFields fields;
    fields.eventId = "doctor";
    fields.url = mark;
    try {
        EventSocket socket(paths::eventSocket(), deadlineAfter(timeout));
        socket.sendOnce(recordBytes(fields));
        socket.waitForClose();
        if (!awaitRecord(before, mark, timeout)) {
            return failed(
                "probe-event",
                fmt::format("sentreld took the record {}, and the log does not have it after {} s", mark, timeout),
                "'sentrelctl status' tells whether it waits in the spool or was refused; 'log-content' above "
                "looks at the store");
        }
    } catch (const Failure& failure) {
        return failed("probe-event", "a record cannot be given to sentreld: " + failure.why(),
                      "'event-socket' above tells why");
    } catch (const HVB::HVBException& error) {
        return failed("probe-event", "the log cannot be read: " + error.message(), "'log-content' above tells why");
    }
    return healthy(fmt::format("the record {} went through the event socket into the log", mark));
}

constexpr int kUnexpected = 100;

int tryLock(const std::string& path, double seconds) {
    try {
        const DatabasePtr database = openDatabase(path);
        setLockWait(*database,
                    std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::duration<double>(seconds)));
        const WriteTransaction lock(*database); // rolled back when it ends
        // Of a file that cannot be written SQLite takes a reader's lock, and is content.
        return sqlite3_db_readonly(database.get(), "main") == 0 ? SQLITE_OK : SQLITE_READONLY;
    } catch (const DatabaseError& error) {
        return std::clamp(error.code(), 1, kUnexpected);
    }
}

/// As whom the lock can be taken: none when this process is the daemon's user itself.
std::optional<uid_t> lockUser() {
    const std::optional<uid_t> daemon = daemonUser();
    if (!daemon) {
        throw CannotSee("the daemon's user is not known without " + paths::sharedDirectory());
    }
    if (::geteuid() != 0 && ::geteuid() != *daemon) {
        throw CannotSee("only root and the daemon's user may take the settings file's write lock");
    }
    return ::geteuid() == 0 ? daemon : std::nullopt;
}

Diagnosis probeLock(double timeout) {
    const std::string path = paths::settingsFile();
    needSettingsFile(path);
    const std::optional<uid_t> user = lockUser();
    const std::string name = userName(user.value_or(::geteuid()));
    constexpr double waiting = 0.8; // of the time, so that the child can still tell that it waited in vain
    const std::optional<int> answer = inChild(user, timeout, [&] { return tryLock(path, waiting * timeout); });
    if (answer == SQLITE_OK) {
        return healthy(fmt::format("{} took the write lock of {} and gave it back", name, path));
    }
    if (!answer || *answer == SQLITE_BUSY || *answer == SQLITE_LOCKED) {
        return failed("probe-lock",
                      fmt::format("another process holds the write lock of {}: no change can be stored", path),
                      "'fuser " + path + "' names who has it open; end what is not sentreld's");
    }
    return failed("probe-lock",
                  fmt::format("{} cannot take the write lock of {}: {}", name, path,
                              *answer == kUnexpected ? "an error that is not SQLite's" : sqlite3_errstr(*answer)),
                  "'settings-file', 'settings-tables' and 'disk-space' above look at what may be the cause");
}

} // namespace

const std::vector<Check>& probeChecks() {
    static const std::vector<Check> all{{"probe-event", probeEvent}, {"probe-lock", probeLock}};
    return all;
}

} // namespace Sentrel::ctl
