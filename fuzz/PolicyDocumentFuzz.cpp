// Feeds a policy message as it comes from the broker. It gives a policy or a reason, never both; the same bytes give
// the same again; what is read keeps to its bounds, and every value is found under its name.
#include "fuzz/Require.h"
#include "platform/hvbagent/AgentLimits.h"
#include "platform/hvbagent/PolicyDocument.h"

#include <cstdint>
#include <string_view>

namespace {

using fuzz::require;
using namespace HVBEnterprise;

void checkSections(const SectionsHandle& policy) {
    require(policy.features().size() <= agent::kMaxPolicyGroups);
    for (const auto& [feature, sections] : policy.features()) {
        PolicySetting setting;
        setting.m_featureId = feature;
        for (const auto& [section, keys] : sections) {
            for (const auto& [key, value] : keys) {
                std::wstring found;
                require(policy.getPropValue(setting, section, key, found) && found == value);
                require(value.size() <= agent::kMaxValueBytes && value.find(L'\0') == std::wstring::npos);
            }
        }
    }
    for (const auto& [section, keys] : policy.sections()) {
        SectionsHandle::Section data;
        require(policy.getSectionDataUsingSectionName(section, data) && data.size() >= keys.size());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view message(reinterpret_cast<const char*>(data), size);
    const agent::PolicyReading reading = agent::readPolicyMessage(message, {});
    const bool refused = !reading.refused.empty();
    require(refused || reading.identity.version.value_or(-1) >= 0);
    require(!refused || (reading.sections.sections().empty() && reading.sections.features().empty()));
    require(reading.refused.size() <= agent::kMaxLogLine && reading.refused.find('\n') == std::string::npos);
    checkSections(reading.sections);
    require(agent::readPolicyMessage(message, {}).refused == reading.refused);
    require(!agent::readPolicyMessage(message, {agent::PublicKey{}}).refused.empty()); // nobody signs with that key
    return 0;
}
