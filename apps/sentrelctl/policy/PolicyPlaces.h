// The places of a policy's values in its document.
#pragma once

#include "platform/hvbagent/PolicyDocument.h"
#include "policy/PolicyKeys.h"

#include <optional>
#include <string>

namespace Sentrel::ctl {

/// The place of a key in the document, as a JSON pointer: where it is found, or where it belongs when it is missing.
std::string placeOf(const HVBEnterprise::SectionsHandle& document, const policy::PolicyKey& key, int index = 0);

/// The place of any key: @p feature is none for the sections that are no feature's.
std::string placeOf(const std::optional<std::string>& feature, const std::string& section, const std::string& key);

} // namespace Sentrel::ctl
