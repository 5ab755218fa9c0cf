// Where the daemon's three signals may land. The handlers do their whole work in place: they trace, close files,
// parse XML, take locks. That is safe only at points where the thread that takes the signal holds no lock and is not
// inside the allocator. So the signals are held back everywhere but at such points.
#pragma once

#include "base/SignalSet.h"
#include "base/WakeUp.h"

#include <thread>

namespace Sentrel {

/// Holds SIGTERM, SIGHUP and SIGUSR2 back on the calling thread for its own lifetime, then restores what was before.
/// Threads: any, each for itself. Owner: a local.
class SignalHold {
public:
    SignalHold();
    ~SignalHold() = default;
    SignalHold(const SignalHold&) = delete;
    SignalHold& operator=(const SignalHold&) = delete;

    /// Lets in what has arrived meanwhile: the handlers of pending signals run before this returns.
    /// Requires that the caller holds no lock that a handler takes.
    void letIn() const;

private:
    const SignalsBlocked m_held;
};

/// A thread on which the signals may land at any time, because it does nothing but wait for them. While the main
/// thread sleeps on its condition, whose lock a handler needs, the signals land here. Handlers run in signal context,
/// as they would on any other thread.
/// Threads: made and destroyed by the main thread. Owner: a local of the wait.
class SignalLanding {
public:
    /// Starts the thread. @throws std::system_error when there can be none.
    SignalLanding();
    /// Ends the thread; a handler that runs on it is waited for. Requires that the caller holds no lock that a
    /// handler takes.
    ~SignalLanding();
    SignalLanding(const SignalLanding&) = delete;
    SignalLanding& operator=(const SignalLanding&) = delete;

private:
    void waitForSignals() const;

    WakeUp m_wake;
    std::thread m_thread;
};

/// Holds the three signals back on the calling thread, and on those it starts, for as long as the process lives. Past
/// the last letIn they are lost: exit handlers free and lock what a handler would need.
void holdSignalsForGood();

} // namespace Sentrel
