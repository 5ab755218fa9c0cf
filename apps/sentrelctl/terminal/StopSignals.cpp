#include "apps/sentrelctl/terminal/StopSignals.h"

#include "apps/sentrelctl/terminal/Failure.h"

#include <cerrno>
#include <csignal>
#include <sys/signalfd.h>
#include <unistd.h>

namespace Sentrel::ctl {
namespace {

sigset_t stopSet() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

} // namespace

StopSignals::StopSignals() : m_fd(-1) {
    const sigset_t set = stopSet();
    m_fd = ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (m_fd < 0) {
        throw Failure(ExitCode::Failed, "cannot wait for Ctrl-C", "", errnoText(errno), "");
    }
    ::sigprocmask(SIG_BLOCK, &set, nullptr);
}

StopSignals::~StopSignals() {
    // What was asked for is done by now: a signal that waits must not turn that into a failure.
    signalfd_siginfo taken{};
    while (::read(m_fd, &taken, sizeof(taken)) > 0) {
    }
    ::close(m_fd);
    const sigset_t set = stopSet();
    ::sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

} // namespace Sentrel::ctl
