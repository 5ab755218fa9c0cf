// Which settings a policy rules: what it sets, so that a change by hand lasts only until it is enforced again.
#pragma once

#include "policy/PolicyValues.h"

#include <optional>
#include <string_view>
#include <vector>

namespace Sentrel::policy {

/// The key without which a policy leaves a setting as it is; none when no policy says anything of that setting.
/// @param setting the key of a setting in the settings file; "allow_block" and "private_ranges" stand for those lists.
std::optional<PolicyKey> rulerOf(std::string_view setting);

/// The settings that @p document sets, as rulerOf takes them; none when it is not to be enforced. A value that says to
/// leave things as they are does not rule them.
std::vector<std::string_view> ruledSettings(const PolicySource& document);

} // namespace Sentrel::policy
