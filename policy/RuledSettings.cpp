#include "policy/RuledSettings.h"

#include <algorithm>
#include <array>
#include <utility>

namespace Sentrel::policy {
namespace {

constexpr std::array<std::pair<std::string_view, PolicyKey>, 12> kRulers{{
    {"allow_block", keys::kSiteCount},
    {"private_ranges", keys::kRangeCount},
    {"Enabled", keys::kEnable},
    {"GenPolicyRPXUnReachableAction", keys::kUnreachable},
    {"CAT_Enabled", keys::kCategorize},
    {"UNCAT_Block", keys::kCategorize},
    {"GenPolicyBlockPhishingAction", keys::kPhishing},
    {"RedSiteAction", keys::kRatings},
    {"YellowSiteAction", keys::kRatings},
    {"UnverifiedSiteAction", keys::kRatings},
    {"GenPolicyUnverifiedAction", keys::kUnverified},
    {"ALLOW_OVER_Block", keys::kSiteCount},
}};

bool leavesThemAsTheyAre(const PolicyKey& key, int value) {
    return (key.name == keys::kRatings.name && value == kRatingsStay) ||
           (key.name == keys::kCategorize.name && value == kCategoriesStay);
}

} // namespace

std::optional<PolicyKey> rulerOf(std::string_view setting) {
    const auto* const ruler =
        std::find_if(kRulers.begin(), kRulers.end(), [setting](const auto& each) { return each.first == setting; });
    return ruler != kRulers.end() ? std::optional(ruler->second) : std::nullopt;
}

std::vector<std::string_view> ruledSettings(const PolicySource& document) {
    std::vector<std::string_view> settings;
    if (!isEnforced(document.number(keys::kEnforce, 0))) {
        return settings;
    }
    for (const auto& [setting, key] : kRulers) {
        const std::optional<int> value = document.number(key, 0);
        if (value && !leavesThemAsTheyAre(key, *value)) {
            settings.push_back(setting);
        }
    }
    return settings;
}

} // namespace Sentrel::policy
