#include "apps/hvbd/ReloadCommand.h"

#include "apps/hvbd/HvbdLimits.h"
#include "base/PrintableText.h"

#include <fmt/format.h>

namespace HVB::hub {

bool ReloadCommand::handleCommand(CommandData& data) {
    if (data.m_commandId != Sentrel::CMD_RELOAD_HVB) {
        return false;
    }
    CommandResult result;
    result.m_commandData = data;
    result.m_bValid = true;
    if (const auto refusal = reload([&data] { return moduleOf(data); })) {
        result.m_bSucceeded = false;
        result.writePayload(*refusal);
    }
    m_broker.sendCommandResponse(result);
    return true;
}

void ReloadCommand::reloadAll() const {
    for (const int module : m_configurations.modules()) {
        reload([module] { return module; });
    }
}

std::optional<std::string> ReloadCommand::reload(const std::function<int()>& moduleId) const {
    try {
        const int module = moduleId();
        const ModuleConfiguration configuration = m_configurations.reload(module);
        m_log.write(LOG_INFO,
                    fmt::format("configuration of module {} read again: {}", module, configuration.description()));
        return std::nullopt;
    } catch (const ConfigurationError& error) {
        // It can contain texts of the file.
        const std::string reason = Sentrel::text::shortened(Sentrel::text::printable(error.what()), kMaxLogLineBytes);
        m_log.write(LOG_WARNING, fmt::format("reload refused, the configuration in force stays: {}", reason));
        return reason;
    }
}

int ReloadCommand::moduleOf(CommandData& data) {
    if (data.m_pInArchive == nullptr) {
        throw ConfigurationError("the command names no module");
    }
    try {
        int moduleId = -1;
        data.readPayload(moduleId);
        return moduleId;
    } catch (const boost::archive::archive_exception& error) {
        throw ConfigurationError(fmt::format("the payload is no module id ({})", error.what()));
    }
}

void ReloadCommand::handleCommandResponse(CommandResult& /*result*/) {
    // hvbd sends no commands.
}

} // namespace HVB::hub
