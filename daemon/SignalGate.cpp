#include "daemon/SignalGate.h"

#include <poll.h>

#include <cerrno>

namespace Sentrel {
namespace {

SignalSet daemonSignals() {
    return {SIGTERM, SIGHUP, SIGUSR2};
}

} // namespace

SignalHold::SignalHold() : m_held(daemonSignals()) {}

void SignalHold::letIn() const {
    const SignalSet signals = daemonSignals();
    signals.unblock();
    signals.block();
}

void holdSignalsForGood() {
    daemonSignals().block();
}

SignalLanding::SignalLanding() {
    const SignalHold hold; // the thread is born with the signals held back and opens them only inside ppoll
    m_thread = std::thread([this] { waitForSignals(); });
}

SignalLanding::~SignalLanding() {
    m_wake.wake();
    m_thread.join();
}

void SignalLanding::waitForSignals() const {
    SignalSet blocked = SignalSet::blockedNow();
    blocked.remove(daemonSignals());
    pollfd wake{m_wake.fd(), POLLIN, 0};
    while (ppoll(&wake, 1, nullptr, &blocked.get()) < 0 && errno == EINTR) {
    }
}

} // namespace Sentrel
