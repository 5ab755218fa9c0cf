// Work with the daemon's list, on a thread of its own: it waits for others, and hvbd's loop waits for nobody.
#pragma once

#include "apps/hvbd/DaemonList.h"
#include "apps/hvbd/LoopHandles.h"
#include "apps/hvbd/SystemLog.h"

#include <functional>
#include <optional>
#include <string>
#include <thread>

namespace HVB::hub {

/// What a piece of work came to. Threads: a plain value. Owner: the holder.
struct ListOutcome {
    bool isDone = false;
    bool isRefused = false; ///< this machine does not allow it; trying again is of no use
    std::string trouble;    ///< why it is not done
    EntryStanding standing; ///< what the work found, where it looked for an entry
};

/// Runs one piece of work at a time. A list may take a minute to be stored; its end is told on the loop.
/// Threads: the loop's; the work alone runs elsewhere. Owner: the program. Its end breaks off work that waits.
class ListWorker {
public:
    /// Looks at the daemon's list, or changes it. @return what it found. Runs on the thread of the work.
    using Work = std::function<EntryStanding(DaemonList&)>;
    /// Is told the end, on the loop. It may start the next work. It must not throw.
    using Done = std::function<void(const ListOutcome&)>;

    /// @throws HVBException
    ListWorker(sd_event& event, std::string socketPath, const SystemLog& log);
    ~ListWorker();
    ListWorker(const ListWorker&) = delete;
    ListWorker& operator=(const ListWorker&) = delete;

    /// Requires that no work is under way. @throws std::system_error when there is no thread to be had.
    void start(Work work, Done done);
    bool isBusy() const { return m_thread.joinable(); }

private:
    static int onEnd(sd_event_source* source, int fd, std::uint32_t events, void* self);
    ListOutcome outcomeOf(const Work& work) noexcept;

    // Constant after construction.
    const std::string m_socketPath;
    const SystemLog& m_log;
    CallBreaker m_breaker;
    Sentrel::UniqueFd m_ended; ///< can be read when the work has ended
    SourcePtr m_source;
    // Plain, single access.
    std::thread m_thread; ///< joinable while work is under way
    Done m_done;
    ListOutcome m_outcome; ///< the thread's until it is joined
};

} // namespace HVB::hub
