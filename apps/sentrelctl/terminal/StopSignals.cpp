#include "apps/sentrelctl/terminal/StopSignals.h"

#include "apps/sentrelctl/terminal/Failure.h"

#include <cerrno>
#include <sys/signalfd.h>
#include <unistd.h>

namespace Sentrel::ctl {

StopSignals::StopSignals()
    : m_signals{SIGINT, SIGTERM}, m_fd(::signalfd(-1, &m_signals.get(), SFD_CLOEXEC | SFD_NONBLOCK)) {
    if (!m_fd.isOpen()) {
        throw Failure(ExitCode::Failed, "cannot wait for Ctrl-C", "", errnoText(errno), "");
    }
    m_signals.block();
}

StopSignals::~StopSignals() {
    // What was asked for is done by now: a signal that waits must not turn that into a failure.
    signalfd_siginfo taken{};
    while (::read(m_fd.get(), &taken, sizeof(taken)) > 0) {
    }
    m_signals.unblock();
}

} // namespace Sentrel::ctl
