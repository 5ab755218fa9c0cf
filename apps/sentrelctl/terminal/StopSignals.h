// Ctrl-C as something to wait for.
#pragma once

#include "base/SignalSet.h"
#include "base/UniqueFd.h"

namespace Sentrel::ctl {

/// While it lives, SIGINT and SIGTERM do not end the process but make a descriptor readable.
/// Threads: made and destroyed by the same thread, while there is no other. Owner: a local of the verb.
class StopSignals {
public:
    /// @throws Failure when the system has no such descriptor to give.
    StopSignals();
    /// Restores the effect of the signals. Those that came meanwhile are dropped.
    ~StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    /// Readable once one of the signals has come.
    int fd() const { return m_fd.get(); }

private:
    const SignalSet m_signals;
    UniqueFd m_fd;
};

} // namespace Sentrel::ctl
