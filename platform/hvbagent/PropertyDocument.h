// What the agent publishes besides the statement of its policies: the machine's properties and state; and the request
// to collect.
#pragma once

#include "platform/hvbagent/AgentDocuments.h"

#include <string>
#include <string_view>

/// Free functions without state. Threads: any. Owner: none. Each text is valid UTF-8 whatever goes in.
namespace HVBEnterprise::agent {

/// {"time", "full", "sections": {section: {key: value}}}. Properties of features are not part of it.
std::string propertyDocument(const SectionsHandle& properties, bool full, const std::string& time);

/// {"state": "online" or "offline", "time"}. @param time as timeText gives it.
std::string stateDocument(bool online, const std::string& time);

/// Reads {"full": true or false}. @throws DocumentError for anything else.
bool readCollectRequest(std::string_view text);

} // namespace HVBEnterprise::agent
