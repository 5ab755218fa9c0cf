// The PID file: a check at one instant that no other start is under way.
#include "base/Paths.h"
#include "daemon/Trace.h"
#include "daemon/VXControllerDaemon.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <tuple>

namespace Sentrel {
namespace {

bool lockAndWritePid(std::FILE* file, int fd) {
    if (lockf(fd, F_TLOCK, 0) != 0) {
        ST_TRACE(stDaemonFlow, 1,
                 L" VXController::createPidFile  -  test lock gave erro %d(%s) for pid file for my pid = %d\n", errno,
                 std::strerror(errno), getpid());
        return false;
    }
    if (lockf(fd, F_LOCK, 0) != 0) {
        // Only the test above refuses a start.
        ST_TRACE(stDaemonFlow, 3, L" VXController::createPidFile  -  error in locking pidfile %d(%s) for my pid %d\n",
                 errno, std::strerror(errno), getpid());
        return true;
    }
    std::ignore = ftruncate(fd, 0); // what cannot be written here shows in the file, which nobody relies on
    static_cast<void>(std::fprintf(file, "%d", getpid()));
    ST_TRACE(stDaemonFlow, 3, L" VXController::createPidFile  - locked pidfile and wrote our pid %d\n", getpid());
    return true;
}

/// Reserves the number of a descriptor that was just closed: removePidFile closes that number once more, and nobody
/// else may have got it by then. Requires that no other thread opens descriptors now.
void reserveDescriptor(int fd) {
    const int placeholder = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (placeholder >= 0 && placeholder != fd) {
        static_cast<void>(dup3(placeholder, fd, O_CLOEXEC));
        close(placeholder);
    }
}

} // namespace

bool VXController::createPidFile() {
    constexpr mode_t mode = 0744;
    std::FILE* file = std::fopen(paths::pidFile().c_str(), "a+e");
    if (file == nullptr) {
        return false;
    }
    m_pidFileFd = fileno(file);
    const bool mayStart = lockAndWritePid(file, m_pidFileFd);
    if (fchmod(m_pidFileFd, mode) != 0) {
        ST_TRACE(stDaemonFlow, 3, L" chmod() error\n");
    }
    static_cast<void>(std::fclose(file)); // writes the pid, and ends the lock
    reserveDescriptor(m_pidFileFd);
    return mayStart;
}

void VXController::removePidFile() {
    ST_TRACE(stDaemonFlow, 3, L"VXController::removePidFile - Entered\n");
    close(m_pidFileFd);
    unlink(paths::pidFile().c_str());
}

} // namespace Sentrel
