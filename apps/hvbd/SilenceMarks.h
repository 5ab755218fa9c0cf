// Marks for what restarts modules: hvbd sees who is silent, and has no right to restart anybody.
#pragma once

#include "apps/hvbd/HealthBoard.h"
#include "apps/hvbd/SystemLog.h"

#include <map>
#include <string>

namespace HVB::hub {

/// A file module-N in a directory for each module that has missed kMissedForMark checks in a row. It goes when the
/// module is well again, and comes back after as many further misses when somebody else has removed it. Threads: one at
/// a time. Owner: the program; the log must outlive it.
class SilenceMarks {
public:
    /// @param directory where the marks are made; empty for none at all.
    SilenceMarks(std::string directory, const SystemLog& log);

    /// Notes what a check came to. A mark that cannot be made or removed is a line in the log and nothing more.
    void note(int moduleId, Health health);

private:
    void leave(const std::string& path, int moduleId) const;
    void remove(const std::string& path) const;

    // Constant after construction.
    const std::string m_directory;
    const SystemLog& m_log;
    // Plain, single access.
    std::map<int, int> m_missed; ///< checks in a row since the last mark
};

} // namespace HVB::hub
