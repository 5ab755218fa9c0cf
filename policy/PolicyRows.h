// What a policy's lists are in the settings file once it is in force.
#pragma once

#include "policy/PolicyValues.h"

#include <map>
#include <optional>
#include <set>
#include <string>

namespace Sentrel::policy {

/// The rows of each list; none for a list that the policy leaves as it is.
struct PolicyRows {
    std::optional<std::set<std::string>> ranges;
    std::optional<std::set<std::string>> categories;
    std::optional<std::map<std::string, int>> sites;
};

/// What a policy whose enforcement succeeded stores. @param source the policy that was enforced.
PolicyRows rowsOf(const PolicySource& source);

} // namespace Sentrel::policy
