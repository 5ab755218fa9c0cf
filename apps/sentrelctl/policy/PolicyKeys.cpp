#include "apps/sentrelctl/policy/PolicyKeys.h"

#include "platform/hvbagent/MsgBusEnterpriseAgent.h"
#include "platform/hvbagent/StrictJson.h"

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <limits>

namespace Sentrel::ctl {
namespace {

using HVBEnterprise::SectionsHandle;
using HVBEnterprise::agent::memberPlace;

/// Every name that the daemon looks for is plain ASCII.
std::wstring wide(std::string_view name) {
    return {name.begin(), name.end()};
}

HVBEnterprise::PolicySetting settingOf(const PolicyKey& key) {
    HVBEnterprise::PolicySetting setting;
    setting.m_featureId = wide(key.feature);
    return setting;
}

bool holds(const SectionsHandle::Sections& sections, const std::wstring& section, const std::wstring& key) {
    const auto found = sections.find(section);
    return found != sections.end() && found->second.count(key) != 0;
}

} // namespace

// The daemon looks at the first fifty bytes, and at none behind one that is not ASCII.
PolicyNumber readPolicyNumber(std::string_view text) {
    constexpr std::size_t looked = 50;
    constexpr int decimal = 10;
    const std::string digits(text.substr(0, looked));
    char* end = nullptr;
    errno = 0;
    const long number = std::strtol(digits.c_str(), &end, decimal);
    const bool fits =
        errno == 0 && number >= std::numeric_limits<int>::min() && number <= std::numeric_limits<int>::max();
    return {static_cast<int>(number), fits && end != digits.c_str() && *end == '\0' && text.size() <= looked};
}

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

std::optional<std::string> policyValue(const SectionsHandle& policy, const PolicyKey& key, int index) {
    const std::wstring section = wide(key.section);
    const std::wstring name = wide(nameOf(key, index));
    std::wstring value;
    const bool found = key.isReadAnywhere ? policy.getPropValue(section, name, value)
                                          : policy.getPropValue(settingOf(key), section, name, value);
    return found ? std::optional(HVBEnterprise::HvbAgentUtils::wstringToString(value)) : std::nullopt;
}

std::string placeOf(const SectionsHandle& policy, const PolicyKey& key, int index) {
    const std::string name = nameOf(key, index);
    const std::string section(key.section);
    std::optional<std::string> feature;
    if (!key.feature.empty()) {
        feature = std::string(key.feature);
    }
    if (key.isReadAnywhere) {
        if (holds(policy.sections(), wide(section), wide(name))) {
            return placeOf(std::nullopt, section, name);
        }
        for (const auto& [each, sections] : policy.features()) {
            if (holds(sections, wide(section), wide(name))) {
                feature = HVBEnterprise::HvbAgentUtils::wstringToString(each);
                break;
            }
        }
    }
    return placeOf(feature, section, name);
}

std::string placeOf(const std::optional<std::string>& feature, const std::string& section, const std::string& key) {
    const std::string parent = feature ? memberPlace("/features", *feature) : "/sections";
    const std::string place = memberPlace(parent, section);
    return key.empty() ? place : memberPlace(place, key);
}

} // namespace Sentrel::ctl
