// The commands that module 1, the hub itself, receives.
#pragma once

#include "apps/hvbd/ModuleConfiguration.h"
#include "apps/hvbd/SystemLog.h"
#include "hub/HVBCommBroker.h"

namespace HVB::hub {

/// Serves CMD_RELOAD_HVB: reads the configuration of the module that the payload names again.
/// The reply is always valid; it has succeeded when the new configuration is in force. Otherwise a line in the system
/// log says why, and what was in force stays.
/// Threads: broker threads, several at a time. Owner: the program; it and what it was given outlive the broker.
class ReloadCommand : public CommandInterface {
public:
    ReloadCommand(HVBCommBroker& broker, ModuleConfigurations& configurations, const SystemLog& log)
        : m_broker(broker), m_configurations(configurations), m_log(log) {}

    bool handleCommand(CommandData& data) override;
    void handleCommandResponse(CommandResult& result) override;

private:
    bool reload(CommandData& data) const;

    // Constant after construction.
    HVBCommBroker& m_broker;
    ModuleConfigurations& m_configurations;
    const SystemLog& m_log;
};

} // namespace HVB::hub
