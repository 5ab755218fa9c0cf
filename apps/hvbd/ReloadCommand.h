// The commands that module 1, the hub itself, receives.
#pragma once

#include "apps/hvbd/ModuleConfiguration.h"
#include "apps/hvbd/SystemLog.h"
#include "hub/HVBCommBroker.h"

#include <functional>
#include <optional>
#include <string>

namespace HVB::hub {

/// Serves CMD_RELOAD_HVB: reads the configuration of the module that the payload names again.
/// The reply is always valid; it has succeeded, without a payload, when the new configuration is in force. Otherwise
/// its payload, a narrow string, and a line in the system log say why, and what was in force stays. Threads: broker
/// threads, several at a time. Owner: the program; it and what it was given outlive the broker.
class ReloadCommand : public CommandInterface {
public:
    ReloadCommand(HVBCommBroker& broker, ModuleConfigurations& configurations, const SystemLog& log)
        : m_broker(broker), m_configurations(configurations), m_log(log) {}

    bool handleCommand(CommandData& data) override;
    void handleCommandResponse(CommandResult& result) override;

    /// Reads the configuration of every module again, as SIGHUP asks; the system log has a line for each.
    void reloadAll() const;

private:
    /// Reads again the configuration of the module that @p moduleId gives.
    /// @return why not; nothing when the new configuration is in force.
    std::optional<std::string> reload(const std::function<int()>& moduleId) const;
    static int moduleOf(CommandData& data);

    // Constant after construction.
    HVBCommBroker& m_broker;
    ModuleConfigurations& m_configurations;
    const SystemLog& m_log;
};

} // namespace HVB::hub
