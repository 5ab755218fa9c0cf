// Which signals a thread takes, and which it leaves to others.
#pragma once

#include <csignal>
#include <initializer_list>

namespace Sentrel {

/// A set of signals, to be blocked, let in or waited for.
/// Threads: block and unblock concern the calling thread and those that it makes later.
class SignalSet {
public:
    SignalSet(std::initializer_list<int> signals);

    /// Every signal there is.
    static SignalSet all();
    /// Those that the calling thread has blocked now.
    static SignalSet blockedNow();

    void add(int signal) { ::sigaddset(&m_set, signal); }
    /// Takes the members of @p others out.
    void remove(const SignalSet& others);
    bool contains(int signal) const { return ::sigismember(&m_set, signal) == 1; }

    /// Blocks them for good. @return false when the system refused, and nothing has changed.
    bool block() const noexcept;
    /// Lets them in; the handlers of those that were pending run before this returns.
    void unblock() const noexcept;

    /// For the system's own calls.
    const sigset_t& get() const { return m_set; }

private:
    sigset_t m_set{};
};

/// Blocks signals on the calling thread for its own lifetime, then restores what was before.
/// Threads: the one that made it; threads that it makes meanwhile have them blocked for good. Owner: a local.
class SignalsBlocked {
public:
    explicit SignalsBlocked(const SignalSet& signals) noexcept;
    ~SignalsBlocked();
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

    /// Whether the system did as it was told. If not, nothing has changed, and nothing will be restored.
    bool areBlocked() const noexcept { return m_areBlocked; }

private:
    sigset_t m_before{};
    bool m_areBlocked;
};

} // namespace Sentrel
