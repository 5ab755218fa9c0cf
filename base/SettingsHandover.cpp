// Two bytes of one file are locked, each with a lock of an open file description, which ends with its process.
//
// The "ask" byte belongs to who wants the file alone, the "use" byte is shared by who keeps it open. Asking comes
// first: a keeper that sees the "ask" byte locked lets go of "use" and takes it again only when "ask" is free. So a
// keeper cannot slip in between the one that asks and what it waits for, and whichever side dies leaves nothing behind.
//
// The file may have been replaced: a lock on one that is not at the path any more keeps nobody out. So the keeper asks
// for it anew then. The one that asks looks once more when it has both locks.
//
// Root may run the asking side in a directory of the daemon's user. Only a file that this call itself has made is given
// away: what stands there already can be a link to anything.
#include "base/SettingsHandover.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <system_error>
#include <thread>

namespace Sentrel {
namespace {

using Clock = std::chrono::steady_clock;

constexpr mode_t kOwnerAlone = 0600;
constexpr off_t kAsk = 0;
constexpr off_t kUse = 1;
constexpr std::chrono::milliseconds kBetweenTries{10};

[[noreturn]] void fail(int error, const std::string& doing, const std::string& file) {
    throw std::system_error(error, std::system_category(), fmt::format("cannot {} {}", doing, file));
}

struct flock lockOf(short type, off_t byte) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = byte;
    lock.l_len = 1;
    return lock;
}

/// @return whether the lock is there; false when another one is in its way. @throws std::system_error
bool tryLock(int fd, short type, off_t byte, const std::string& file) {
    struct flock lock = lockOf(type, byte);
    if (::fcntl(fd, F_OFD_SETLK, &lock) == 0) {
        return true;
    }
    if (errno != EAGAIN && errno != EACCES) {
        fail(errno, "lock", file);
    }
    return false;
}

bool isLockedByOthers(int fd, off_t byte) {
    struct flock lock = lockOf(F_WRLCK, byte);
    return ::fcntl(fd, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

bool isInPlace(int fd, const std::string& file) {
    struct stat mine {};
    struct stat there {};
    return ::fstat(fd, &mine) == 0 && ::lstat(file.c_str(), &there) == 0 && mine.st_ino == there.st_ino &&
           mine.st_dev == there.st_dev;
}

/// Gives a new file to the directory's owner.
void giveAway(int fd, const std::string& file) {
    struct stat directory {};
    if (::stat(file.substr(0, file.rfind('/') + 1).c_str(), &directory) != 0 ||
        (directory.st_uid != ::geteuid() && ::fchown(fd, directory.st_uid, directory.st_gid) != 0)) {
        const int error = errno;
        ::unlink(file.c_str()); // the owner could not open it
        fail(error, "give away", file);
    }
}

UniqueFd openOrMake(const std::string& file) {
    const int flags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY;
    constexpr int fairTries = 100; // it may come and go between two calls
    for (int i = 0; i < fairTries; ++i) {
        UniqueFd made(::open(file.c_str(), flags | O_CREAT | O_EXCL, kOwnerAlone));
        if (made.isOpen()) {
            giveAway(made.get(), file);
            return made;
        }
        if (errno != EEXIST) {
            fail(errno, "make", file);
        }
        UniqueFd found(::open(file.c_str(), flags));
        struct stat status {};
        if (found.isOpen() && ::fstat(found.get(), &status) == 0) {
            if (!S_ISREG(status.st_mode)) {
                fail(EINVAL, "use what is no regular file:", file);
            }
            return found;
        }
        if (errno != ENOENT) {
            fail(errno, "open", file);
        }
    }
    fail(EAGAIN, "open", file);
}

/// Tries until the lock is there. @throws std::system_error with ETIMEDOUT and @p complaint at the deadline.
void lockUntil(Clock::time_point deadline, int fd, off_t byte, const std::string& file, const std::string& complaint) {
    while (!tryLock(fd, F_WRLCK, byte, file)) {
        if (Clock::now() >= deadline) {
            throw std::system_error(ETIMEDOUT, std::system_category(), complaint);
        }
        std::this_thread::sleep_for(kBetweenTries);
    }
}

/// Both locks, of the file that is at the path.
UniqueFd askUntil(Clock::time_point deadline, const std::string& settingsFile) {
    const std::string file = handoverFile(settingsFile);
    for (;;) {
        UniqueFd fd = openOrMake(file);
        lockUntil(deadline, fd.get(), kAsk, file,
                  fmt::format("another process converts or repairs {0}; wait for it (fuser {0} names it)", file));
        // A keeper that watches the file sees this at once, any other one in its next round.
        static_cast<void>(::futimens(fd.get(), nullptr));
        lockUntil(deadline, fd.get(), kUse, file,
                  fmt::format("the settings keeper does not let go of {}; stop it and try again (fuser {} names it)",
                              settingsFile, file));
        if (isInPlace(fd.get(), file)) {
            return fd;
        }
        if (Clock::now() >= deadline) {
            fail(ETIMEDOUT, "lock what is replaced again and again:", file);
        }
    }
}

} // namespace

std::string handoverFile(const std::string& settingsFile) {
    return settingsFile + ".handover";
}

bool SettingsHold::take() {
    if (isHeld()) {
        return true;
    }
    UniqueFd fd = openOrMake(m_file);
    // The "use" lock first: who asks now waits for it, and this side looks for who asks only after that.
    if (tryLock(fd.get(), F_RDLCK, kUse, m_file) && !isLockedByOthers(fd.get(), kAsk) && isInPlace(fd.get(), m_file)) {
        m_fd = std::move(fd);
    }
    return isHeld();
}

bool SettingsHold::isAskedFor() const noexcept {
    return isHeld() && (isLockedByOthers(m_fd.get(), kAsk) || !isInPlace(m_fd.get(), m_file));
}

SettingsHandover::SettingsHandover(const std::string& settingsFile, std::chrono::milliseconds patience)
    : m_fd(askUntil(Clock::now() + patience, settingsFile)) {}

} // namespace Sentrel
