// What the agent publishes: the machine's properties, the result of a policy, its state; and the request to collect.
#pragma once

#include "platform/hvbagent/AgentDocuments.h"
#include "platform/hvbagent/PolicyDocument.h"

#include <optional>
#include <string>
#include <string_view>

/// Free functions without state. Threads: any. Owner: none. Each text is valid UTF-8 whatever goes in.
namespace HVBEnterprise::agent {

/// {"time", "full", "sections": {section: {key: value}}}. Properties of features are not part of it.
std::string propertyDocument(const SectionsHandle& properties, bool full, const std::string& time);

/// What became of a policy.
struct PolicyOutcome {
    std::optional<bool> enforced;           ///< what enforcement returned; nothing when it was refused
    std::string refused;                    ///< why, empty when it was not
    std::optional<std::size_t> rowsMissing; ///< of its lists in the settings file; nothing when that is not known
};

/// {"version", "id", "sha256", "time", "enforced", "refused", "rows_missing"}; null for what does not apply. When the
/// version could not be read, neither could the id.
std::string policyResult(const PolicyIdentity& identity, const PolicyOutcome& outcome, const std::string& time);

/// {"state": "online" or "offline", "time"}.
std::string stateDocument(bool online, const std::string& time);

/// Reads {"full": true or false}. @throws DocumentError for anything else.
bool readCollectRequest(std::string_view text);

} // namespace HVBEnterprise::agent
