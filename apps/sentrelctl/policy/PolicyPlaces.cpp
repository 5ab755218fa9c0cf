#include "apps/sentrelctl/policy/PolicyPlaces.h"

namespace Sentrel::ctl {
namespace {

using HVBEnterprise::SectionsHandle;
using HVBEnterprise::agent::memberPlace;
using policy::nameOf;
using policy::PolicyKey;
using policy::wide;

bool holds(const SectionsHandle::Sections& sections, const std::wstring& section, const std::wstring& key) {
    const auto found = sections.find(section);
    return found != sections.end() && found->second.count(key) != 0;
}

} // namespace

std::string placeOf(const SectionsHandle& document, const PolicyKey& key, int index) {
    const std::string name = nameOf(key, index);
    const std::string section(key.section);
    std::optional<std::string> feature;
    if (!key.feature.empty()) {
        feature = std::string(key.feature);
    }
    if (key.isReadAnywhere) {
        if (holds(document.sections(), wide(section), wide(name))) {
            return placeOf(std::nullopt, section, name);
        }
        for (const auto& [each, sections] : document.features()) {
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
