#include "apps/sentrelctl/preferences/SettingsForm.h"

#include "base/Database.h"
#include "base/UniqueFd.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <fmt/format.h>
#include <string_view>
#include <sys/stat.h>
#include <system_error>

namespace Sentrel::ctl {
namespace {

// A change of the journal mode needs the file for itself for a moment.
constexpr std::chrono::seconds kLockWait{2};

/// Gives the file this mode, if it is there and a regular file. @return whether that was a change.
bool giveMode(const std::string& path, mode_t mode) {
    constexpr mode_t permissions = 07777;
    const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd.isOpen() && errno == ENOENT) {
        return false;
    }
    struct stat status {};
    if (!fd.isOpen() || ::fstat(fd.get(), &status) != 0) {
        throw std::system_error(errno, std::generic_category(), path);
    }
    if (!S_ISREG(status.st_mode) || (status.st_mode & permissions) == mode) {
        return false;
    }
    if (::fchmod(fd.get(), mode) != 0) {
        throw std::system_error(errno, std::generic_category(), path);
    }
    return true;
}

void giveJournalMode(const std::string& path, const char* mode) {
    const DatabasePtr database = openDatabase(path);
    setLockWait(*database, kLockWait);
    Statement change(*database, fmt::format("pragma journal_mode={}", mode).c_str());
    if (!change.step() || change.bytes(0) != std::string_view(mode)) {
        throw DatabaseError(SQLITE_BUSY, 0, "the journal mode stays as it is");
    }
}

} // namespace

mode_t modeFor(SettingsReaders readers) {
    constexpr mode_t daemonAlone = 0640;
    constexpr mode_t everybody = 0644;
    return readers == SettingsReaders::Everybody ? everybody : daemonAlone;
}

const char* journalFor(SettingsReaders readers) {
    return readers == SettingsReaders::Everybody ? "delete" : "wal";
}

const char* journalIn(const std::string& header) {
    constexpr std::size_t writeVersion = 18; // "Database File Format", sqlite.org/fileformat2.html
    constexpr char withWriteAheadLog = 2;
    return header.at(writeVersion) == withWriteAheadLog ? "wal" : "delete";
}

std::vector<std::string> giveSettingsForm(const std::string& path, const std::string& header, SettingsReaders readers) {
    std::vector<std::string> changes;
    // The mode first: once others cannot open the file, no new reader can hold it.
    bool isNewMode = false;
    for (const char* ending : {"", "-wal", "-shm", "-journal"}) {
        isNewMode = giveMode(path + ending, modeFor(readers)) || isNewMode;
    }
    if (isNewMode) {
        changes.push_back(fmt::format("its mode is {:04o} now", modeFor(readers)));
    }
    if (std::string_view(journalIn(header)) != journalFor(readers)) {
        giveJournalMode(path, journalFor(readers));
        changes.push_back(readers == SettingsReaders::Everybody ? "it has a rollback journal now"
                                                                : "it has a write-ahead log now");
    }
    return changes;
}

} // namespace Sentrel::ctl
