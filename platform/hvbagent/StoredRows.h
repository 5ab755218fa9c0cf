// Whether what a policy stores has arrived in the settings file, and whether the hub is there that tells so.
#pragma once

#include "platform/hvbagent/AgentDocuments.h"
#include "platform/settings/SettingsSnapshot.h"

#include <cstddef>
#include <optional>
#include <string>

/// Free functions without state. Threads: any. Owner: none.
namespace HVBEnterprise::agent {

/// How many rows of the lists that @p policy stores are not in the file. A row with another action is missing too.
std::size_t rowsMissing(const SectionsHandle& policy, const Sentrel::settings::SettingsSnapshot& stored);

/// The comparison with the file as the hub tells it. Takes at most some seconds, and ends at once when @p cancelFd can
/// be read.
struct StoredRows {
    std::optional<std::size_t> missing; ///< none when the hub cannot tell
    std::string trouble;                ///< why it cannot; empty when it can
};
StoredRows compareWithFile(const SectionsHandle& policy, int cancelFd);

/// Whether the hub takes calls. Takes at most a second, and ends at once as above.
bool isHubThere(int cancelFd) noexcept;

} // namespace HVBEnterprise::agent
