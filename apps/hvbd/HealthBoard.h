// What is known of the modules' health, and which of it is news.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace HVB::hub {

enum class Health {
    Well,
    Unwell, ///< it answers that it is not well
    Silent, ///< it answers with an error, or not in time
    Gone,   ///< it was on the bus and is not any more
};

/// The word for a state in the system log and in the Status reply.
const char* healthWord(Health health);

/// A change of a module's state, as a line for the system log.
struct HealthNews {
    int priority; ///< of syslog(3)
    std::string line;
};

/// The last known state of each module that was ever seen. Gives news when a state changes, not for each check.
/// Threads: one at a time. Owner: the health monitor.
class HealthBoard {
public:
    using Time = std::chrono::system_clock::time_point;

    struct Entry {
        Health health;
        Time since;
    };

    /// Notes the outcome of a check. @param detail why, for a state other than Well; part of the news, not of the
    /// state.
    std::optional<HealthNews> note(int moduleId, Health health, const std::string& detail, Time now);

    /// Notes which modules are on the bus: those known and not among them are gone.
    std::vector<HealthNews> notePresent(const std::set<int>& moduleIds, Time now);

    const std::map<int, Entry>& entries() const { return m_entries; }

private:
    // Plain, single access.
    std::map<int, Entry> m_entries;
};

/// The id in a module's bus name; none for any other name.
std::optional<int> moduleIdOf(const std::string& busName);

/// A time as 2026-01-31T08:30:00Z.
std::string isoTime(HealthBoard::Time time);

} // namespace HVB::hub
