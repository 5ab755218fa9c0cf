// The fleet for tools: how a machine is enrolled, its topics, a connection to the broker, and what machines publish.
// With PolicyDocument.h and SiteKeys.h this is all that a program beside the daemon includes of this library.
#pragma once

#include "platform/hvbagent/AgentConfiguration.h"
#include "platform/hvbagent/AgentLimits.h"
#include "platform/hvbagent/DocumentError.h"
#include "platform/hvbagent/MqttSession.h"
#include "platform/hvbagent/Topics.h"

#include <nlohmann/json_fwd.hpp>

#include <string>
#include <string_view>

/// Free functions without state. Threads: any. Owner: none.
namespace HVBEnterprise::agent {

/// The enrolment in a file, whoever may write to it. The machine's credentials are not read: an administrator may use
/// others. @throws std::system_error, DocumentError.
AgentConfiguration readEnrolment(const std::string& path);

/// What a machine published about itself: an object. @throws DocumentError.
nlohmann::json readMachineDocument(std::string_view payload);

} // namespace HVBEnterprise::agent
