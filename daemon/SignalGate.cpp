#include "daemon/SignalGate.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace Sentrel {
namespace {

sigset_t daemonSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    sigaddset(&signals, SIGUSR2);
    return signals;
}

} // namespace

SignalHold::SignalHold() {
    const sigset_t signals = daemonSignals();
    pthread_sigmask(SIG_BLOCK, &signals, &m_before);
}

SignalHold::~SignalHold() {
    pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
}

void SignalHold::letIn() const {
    const sigset_t signals = daemonSignals();
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

void holdSignalsForGood() {
    const sigset_t signals = daemonSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

SignalLanding::SignalLanding() : m_wakeFd(eventfd(0, EFD_CLOEXEC)) {
    if (m_wakeFd < 0) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    const SignalHold hold; // the thread is born with the signals held back and opens them only inside ppoll
    m_thread = std::thread([this] { waitForSignals(); });
}

SignalLanding::~SignalLanding() {
    static_cast<void>(eventfd_write(m_wakeFd, 1)); // cannot fail: the counter is far from its limit
    m_thread.join();
    close(m_wakeFd);
}

void SignalLanding::waitForSignals() const {
    sigset_t open;
    pthread_sigmask(SIG_BLOCK, nullptr, &open);
    sigdelset(&open, SIGTERM);
    sigdelset(&open, SIGHUP);
    sigdelset(&open, SIGUSR2);
    pollfd wake{m_wakeFd, POLLIN, 0};
    while (ppoll(&wake, 1, nullptr, &open) < 0 && errno == EINTR) {
    }
}

} // namespace Sentrel
