// Whether the policy of this machine rules a setting.
#pragma once

#include "apps/sentrelctl/terminal/Json.h"
#include "platform/settings/SettingsSnapshot.h"

#include <optional>
#include <string>
#include <string_view>

namespace Sentrel::ctl {

/// Whether a policy says something of a setting.
struct PolicyRuling {
    std::optional<bool> isRuled; ///< none: not known
    std::string text;            ///< a sentence without its end
};

/// @param setting the key of a setting in the settings file; "allow_block" and "private_ranges" stand for those lists.
/// Empty: no setting decided. @param policy what the settings keeper knows of it; none: nothing.
PolicyRuling rulingOf(std::string_view setting, const std::optional<settings::MachinePolicy>& policy);

/// "ruled", "managed" and "text".
Json rulingJson(const PolicyRuling& ruling, const std::optional<settings::MachinePolicy>& policy);

} // namespace Sentrel::ctl
