// The doctor's look at the file systems: whether what the daemon and hvbd write still fits, and whether files may be
// changed at all.
//
// A disk that fills up shows late. Changes of the settings that need no new page still work, so a full disk is told
// before anything fails.
//
// What must stay so:
// - A file system that holds several of the files is told once, with the file that needs most.
// - Root may use what a file system keeps back for it, and others may not. What is free is counted for the owner of the
//   directory, who writes there.
// - The spool takes its room when it is made. Only one that is not there yet needs any.
#include "apps/sentrelctl/doctor/Doctor.h"
#include "base/Paths.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace Sentrel::ctl {
namespace {

constexpr std::uint64_t kMebibyte = std::uint64_t{1} << 20U;
/// Below this a change or a batch of reports may already fail: a write-ahead log has some four of these MiB.
constexpr std::uint64_t kLeastFreeBytes = 8 * kMebibyte;
/// A list of the largest size that a policy sets, or a busy day's reports.
constexpr std::uint64_t kLowFreeBytes = 64 * kMebibyte;
constexpr std::uint64_t kSpoolBytes = 16 * kMebibyte;
constexpr std::uint64_t kLeastFreeFiles = 16;

/// A file that grows, or will be made.
struct Writable {
    const char* what;
    std::string path;
    std::uint64_t least; ///< bytes that must be free
    std::uint64_t low;   ///< bytes below which a warning is due
};

/// What is left of a file system for the owner of a directory on it.
struct Room {
    std::uint64_t bytes = 0;
    std::uint64_t files = 0;
    bool isReadOnly = false;
};

std::vector<Writable> writables() {
    const std::string spool = paths::reportSpool();
    const std::uint64_t spoolNeeds = factsOf(spool) ? 0 : kSpoolBytes;
    return {{"settings file", paths::settingsFile(), kLeastFreeBytes, kLowFreeBytes},
            {"log store", paths::hubLogStore(), kLeastFreeBytes, kLowFreeBytes},
            {"spool", spool, spoolNeeds, spoolNeeds}};
}

Room roomFor(const std::string& directory, const struct stat& facts) {
    struct statvfs system {};
    if (::statvfs(directory.c_str(), &system) != 0) {
        throw CannotSee(fmt::format("the file system of {} cannot be seen as this user", directory));
    }
    const bool isRoots = facts.st_uid == 0;
    const bool countsFiles = system.f_files > 0; // some file systems make room for them as they come
    return {std::uint64_t{isRoots ? system.f_bfree : system.f_bavail} * system.f_frsize,
            countsFiles ? std::uint64_t{isRoots ? system.f_ffree : system.f_favail} : UINT64_MAX,
            (system.f_flag & ST_RDONLY) != 0};
}

std::string sizeText(std::uint64_t bytes) {
    constexpr std::uint64_t inWhole = 100 * kMebibyte;
    return bytes >= inWhole ? fmt::format("{} MiB", bytes / kMebibyte)
                            : fmt::format("{:.1f} MiB", static_cast<double>(bytes) / static_cast<double>(kMebibyte));
}

constexpr const char* kMakeRoom = "Make room on that file system; 'df' and 'du -x' tell what takes it";

/// What is wrong with the room for one file; none when nothing is.
std::optional<Diagnosis> lackOf(const Writable& file, const Room& room) {
    if (room.isReadOnly) {
        return failed("disk-read-only",
                      fmt::format("the file system of the {} can only be read: {}", file.what, file.path),
                      "Look into the system's log why it was mounted so, and mount it for writing");
    }
    if (room.files < kLeastFreeFiles) {
        return failed("disk-full",
                      fmt::format("the disk of the {} has room for {} more files, and {} is the least: {}", file.what,
                                  room.files, kLeastFreeFiles, file.path),
                      "Remove files of that file system that are not needed; 'df -i' tells how many there are");
    }
    if (room.bytes < file.least) {
        return failed("disk-full",
                      fmt::format("the disk of the {} is full: {} are free, and {} is the least: {}", file.what,
                                  sizeText(room.bytes), sizeText(file.least), file.path),
                      kMakeRoom);
    }
    if (room.bytes < file.low) {
        return warning("disk-low",
                       fmt::format("the disk of the {} is nearly full: {} are free, and {} should be: {}", file.what,
                                   sizeText(room.bytes), sizeText(file.low), file.path),
                       kMakeRoom);
    }
    return std::nullopt;
}

/// How much is free for each file, as a sentence's parts.
struct FreeRoom {
    std::vector<std::string> parts;
    std::optional<Diagnosis> worst;

    void add(const Writable& file, const Room& room) {
        parts.push_back(fmt::format("{} for the {}", sizeText(room.bytes), file.what));
        std::optional<Diagnosis> lack = lackOf(file, room);
        if (lack && (!worst || (worst->verdict == Verdict::Warning && lack->verdict == Verdict::Failed))) {
            worst = std::move(lack);
        }
    }
};

Diagnosis diskSpace(double /*timeout*/) {
    FreeRoom free;
    for (const Writable& file : writables()) {
        const std::string directory = directoryOf(file.path);
        if (const std::optional<struct stat> facts = factsOf(directory); facts && S_ISDIR(facts->st_mode)) {
            free.add(file, roomFor(directory, *facts));
        }
    }
    if (free.worst) {
        return *free.worst;
    }
    if (free.parts.empty()) {
        throw CannotSee("none of the directories is there");
    }
    return healthy(fmt::format("free: {}; {} is the least", fmt::join(free.parts, ", "), sizeText(kLeastFreeBytes)));
}

} // namespace

std::string lockedBits(const std::string& path) {
    struct statx facts {};
    if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_TYPE, &facts) != 0) {
        return {}; // another check tells that it is not there, or cannot be seen
    }
    std::vector<std::string> names;
    if ((facts.stx_attributes & STATX_ATTR_IMMUTABLE) != 0) {
        names.emplace_back("immutable");
    }
    if ((facts.stx_attributes & STATX_ATTR_APPEND) != 0) {
        names.emplace_back("append-only");
    }
    return fmt::format("{}", fmt::join(names, " and "));
}

const std::vector<Check>& diskChecks() {
    static const std::vector<Check> all{{"disk-space", diskSpace}};
    return all;
}

} // namespace Sentrel::ctl
