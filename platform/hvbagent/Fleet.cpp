#include "platform/hvbagent/Fleet.h"

#include "base/FileReading.h"
#include "platform/hvbagent/StrictJson.h"

#include <nlohmann/json.hpp>

namespace HVBEnterprise::agent {

AgentConfiguration readEnrolment(const std::string& path) {
    return readAgentConfiguration(Sentrel::readRegularFile(path, kMaxConfigurationBytes, Sentrel::FileAccess::Anybody));
}

nlohmann::json readMachineDocument(std::string_view payload) {
    nlohmann::json document =
        readStrictJson(payload, {.bytes = kMaxPropertyBytes, .depth = kMaxMachineDepth, .values = kMaxMachineValues});
    if (!document.is_object()) {
        throw DocumentError("", "is not an object");
    }
    return document;
}

} // namespace HVBEnterprise::agent
