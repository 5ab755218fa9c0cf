#include "apps/hvbd/ReloadCommand.h"

#include <fmt/format.h>

#include <string>

namespace HVB::hub {

bool ReloadCommand::handleCommand(CommandData& data) {
    if (data.m_commandId != Sentrel::CMD_RELOAD_HVB) {
        return false;
    }
    CommandResult result;
    result.m_commandData = data;
    result.m_bSucceeded = reload(data);
    result.m_bValid = true;
    m_broker.sendCommandResponse(result);
    return true;
}

bool ReloadCommand::reload(CommandData& data) const {
    try {
        int moduleId = -1;
        data.readPayload(moduleId);
        const ModuleConfiguration configuration = m_configurations.reload(moduleId);
        m_log.write(LOG_INFO,
                    fmt::format("configuration of module {} read again: syslog {}, level {}", moduleId,
                                configuration.syslogEnabled ? "on" : "off", static_cast<int>(configuration.level)));
        return true;
    } catch (const ConfigurationError& error) {
        m_log.write(LOG_WARNING, fmt::format("reload refused, the configuration in force stays: {}", error.what()));
    } catch (const boost::archive::archive_exception& error) {
        m_log.write(LOG_WARNING, fmt::format("reload refused: the payload is no module id ({})", error.what()));
    }
    return false;
}

void ReloadCommand::handleCommandResponse(CommandResult& /*result*/) {
    // hvbd sends no commands.
}

} // namespace HVB::hub
