// The client's connection to the hub: reading the log, hearing of new records, asking who is there.
#pragma once

#include "apps/sentrelctl/reports/Report.h"
#include "hub/HVBMessages.h"
#include "platform/hvbhelpers/BusConnection.h"
#include "platform/settings/SettingsSnapshot.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace Sentrel::ctl {

/// What hvbd knows of a module.
struct ModuleHealth {
    int moduleId;
    std::string state; ///< "well", "unwell", "silent", "gone", or "unknown" while hvbd has not checked it
    std::string since; ///< as 2026-01-31T08:30:00Z; empty when unknown
    std::string configurationProblem; ///< why it cannot use its configuration file; empty when it can
};

/// One connection to the hub's bus. After any exception give it up.
/// Threads: one at a time. Owner: the verb.
class HubClient {
public:
    /// Connects. @param timeout seconds that each operation, this one included, may take.
    /// @throws HVB::HVBException as HVB::bus::openBus does.
    HubClient(const std::string& socketPath, double timeout);

    /// Asks the bus itself, which answers also when no module is there. @return how long the answer took.
    /// @throws HVB::HVBException as HVB::bus::call does; so do the operations below.
    std::chrono::microseconds pingBus();

    /// Asks the process behind @p name whether it is there. @return how long the answer took.
    std::chrono::microseconds ping(const std::string& name, const std::string& path);

    /// The process behind @p name: the bus tells root, and the services' users.
    pid_t processOf(const std::string& name);

    /// What hvbd knows of the modules' health: only root, the administrators and hvbd's user may ask.
    std::vector<ModuleHealth> moduleHealth();

    /// What hvbd knows of sentreld; none when it tells nothing of it.
    std::optional<ModuleHealth> daemonHealth();

    /// What the settings file holds, as hvbd has it. With @p isFresh as it is after this was called; else as it was
    /// last handed in. @throws HVB::HVBException also when the settings keeper is away, or has never been there.
    settings::SettingsSnapshot settings(bool isFresh);

    /// The same of the last time when every list was whole.
    settings::SettingsSnapshot lastWholeSettings();

    /// Tells the settings keeper how many rows a list will have that is about to be replaced. It holds as long as this
    /// connection, or until the list is whole. @param list as in settings::Replacement.
    void noteReplacement(const char* list, std::uint64_t rows);

    /// Publishes @p event. The bus silently drops what its policy refuses, so this listens for its own event. @return
    /// false when the policy refuses this user.
    bool publish(const HVB::EventData& event);

    /// At most @p limit records behind @p after in ascending order: the oldest of them, or the @p newest.
    /// There may be fewer than the limit although there are more records.
    std::vector<StoredRecord> readLog(std::uint64_t after, std::uint32_t limit, bool newest);

    /// From now on the hub's signals about new records are kept until waitForRecord takes them.
    void subscribeToLog();

    /// From now on a wait notices when the hub or sentreld leaves the bus.
    void subscribeToFarewell();

    enum class Wake {
        Record,     ///< a record was stored
        Bell,       ///< the bell's descriptor can be read
        Stop,       ///< the stop descriptor can be read
        OutputGone, ///< nobody reads the output any more
    };

    /// Waits until the hub has stored a record. Records that were stored since the last call count as one.
    /// Requires subscribeToLog.
    /// @throws HVB::HVBException when the bus or the hub has gone.
    Wake waitForRecord(int stopFd, int outputFd);

    /// Waits until @p bellFd can be read. Requires subscribeToFarewell.
    /// @throws HVB::HVBException when the bus, the hub or sentreld has gone.
    Wake waitForBell(int bellFd, int stopFd, int outputFd);

private:
    HVB::bus::Deadline deadline() const;
    std::chrono::microseconds timedCall(const std::string& name, const std::string& path, const char* interface,
                                        const char* member);
    settings::SettingsSnapshot askForSettings(const char* member, bool isFresh);
    void addMatch(const std::string& rule);
    bool takeMessage(bool& isStored);
    bool hearsItself(const std::string& member);
    std::optional<Wake> waitForInput(int bellFd, int stopFd, int outputFd);

    double m_timeout;
    HVB::bus::BusPtr m_bus;
};

} // namespace Sentrel::ctl
