// A sign of life on a terminal while something takes long.
#pragma once

#include "apps/sentrelctl/terminal/Output.h"
#include "base/Mutex.h"

#include <chrono>
#include <functional>
#include <string>
#include <thread>

namespace Sentrel::ctl {

/// While it lives, and once a second has passed, a line on @p err says what is being done and for how long. It is gone
/// when this is. Nothing happens when @p err is no terminal.
/// Threads: has one of its own, which alone writes to the output meanwhile. Owner: a local of the verb.
class Progress {
public:
    /// @param what ASCII, such as "Storing 10000 entries".
    /// @param more called once a second on the thread, when there is one, for what stands behind that; may be empty.
    Progress(Output& err, std::string what, std::function<std::string()> more = {});
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

private:
    void run();
    bool isDoneBy(std::chrono::steady_clock::time_point time);

    Output& m_err;
    // constant after construction
    const std::string m_what;
    const std::function<std::string()> m_more;

    Mutex m_mutex;
    ConditionVariable m_changed;
    bool m_isDone SENTREL_GUARDED_BY(m_mutex) = false;

    std::thread m_thread;
};

} // namespace Sentrel::ctl
