#include "base/ProcessStart.h"

#include "base/InstallRoot.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>

namespace Sentrel {
namespace {

void fillStandardDescriptors() noexcept {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (::fcntl(fd, F_GETFD) < 0 && errno == EBADF) {
            // The lowest free number is this one. It is for good, and not closed on exec, as the others are.
            static_cast<void>(::open("/dev/null", O_RDWR)); // NOLINT(android-cloexec-open)
        }
    }
}

/// A limit of one byte, since the kernel does not hold a dump that it pipes to a program against the limit, except
/// against this one. The process stays readable for its own user in /proc, as one that is not dumpable would not.
void forbidCoreDumps() noexcept {
    constexpr rlimit none{1, 1};
    if (::setrlimit(RLIMIT_CORE, &none) != 0) { // the limit is 0 already, and only root may raise it
        static_cast<void>(::prctl(PR_SET_DUMPABLE, 0));
    }
}

} // namespace

void beginProcess() noexcept {
    fillStandardDescriptors();
    if (!coreDumpsAllowed()) {
        forbidCoreDumps();
    }
}

} // namespace Sentrel
