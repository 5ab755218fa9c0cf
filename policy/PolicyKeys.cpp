#include "policy/PolicyKeys.h"

#include "policy/PolicyLimits.h"

#include <algorithm>
#include <charconv>

namespace Sentrel::policy {

std::string nameOf(const PolicyKey& key, int index) {
    return std::string(key.name) + (key.isIndexed ? std::to_string(index) : "");
}

std::optional<int> indexIn(const PolicyKey& key, std::string_view name) {
    int index = 0;
    if (!key.isIndexed || !name.starts_with(key.name)) {
        return std::nullopt;
    }
    name.remove_prefix(key.name.size());
    const auto read = std::from_chars(name.data(), name.data() + name.size(), index);
    if (read.ec != std::errc() || std::to_string(index) != name || index < 0) {
        return std::nullopt;
    }
    return index;
}

bool isBeyondItsList(std::string_view section, std::string_view name) {
    return std::any_of(keys::kAll.begin(), keys::kAll.end(), [&](const PolicyKey& key) {
        return key.section == section && indexIn(key, name).value_or(0) >= kMaxPolicyEntries;
    });
}

} // namespace Sentrel::policy
