#include "base/SignalSet.h"

namespace Sentrel {

SignalSet::SignalSet(std::initializer_list<int> signals) {
    ::sigemptyset(&m_set);
    for (const int signal : signals) {
        add(signal);
    }
}

SignalSet SignalSet::all() {
    SignalSet set{};
    ::sigfillset(&set.m_set);
    return set;
}

SignalSet SignalSet::blockedNow() {
    SignalSet set{};
    ::pthread_sigmask(SIG_BLOCK, nullptr, &set.m_set);
    return set;
}

void SignalSet::remove(const SignalSet& others) {
    for (int signal = 1; signal < NSIG; ++signal) {
        if (others.contains(signal)) {
            ::sigdelset(&m_set, signal);
        }
    }
}

bool SignalSet::block() const noexcept {
    return ::pthread_sigmask(SIG_BLOCK, &m_set, nullptr) == 0;
}

void SignalSet::unblock() const noexcept {
    ::pthread_sigmask(SIG_UNBLOCK, &m_set, nullptr);
}

SignalsBlocked::SignalsBlocked(const SignalSet& signals) noexcept
    : m_areBlocked(::pthread_sigmask(SIG_BLOCK, &signals.get(), &m_before) == 0) {}

SignalsBlocked::~SignalsBlocked() {
    if (m_areBlocked) {
        ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
    }
}

} // namespace Sentrel
