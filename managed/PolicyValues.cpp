// Every look-up of a policy ends here: what comes from the network is bounded before anything else looks at it.
#include "managed/PolicyValues.h"

#include "base/TextConversion.h"
#include "daemon/Trace.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <vector>

namespace Sentrel {
namespace {

constexpr std::size_t kNarrowBytes = 1024; // with the terminator
constexpr std::size_t kNumberBytes = 50;

/// The number at the start of @p text; 0 when there is none.
int numberOf(const std::wstring& text) {
    std::string digits;
    for (const wchar_t c : text) {
        constexpr wchar_t lastAscii = 0x7F;
        if (c <= 0 || c > lastAscii || digits.size() == kNumberBytes) {
            break;
        }
        digits += static_cast<char>(c);
    }
    constexpr int decimal = 10;
    return static_cast<int>(std::strtol(digits.c_str(), nullptr, decimal));
}

void deliverText(const std::wstring& text, wchar_t* destination) {
    const std::size_t length = std::min(text.size(), kPolicyTextCharacters - 1);
    if (length < text.size()) {
        ST_TRACE(mgsFlow, 1, L"VXPolicyEnforcementImpl::getPolicyKeyValue - cut a text of %lu characters\n",
                 text.size());
    }
    std::wmemcpy(destination, text.data(), length);
    destination[length] = L'\0';
}

void deliver(const std::wstring& value, void* destination, VALUETYPE type) {
    if (type == VALUE_INTEGER) {
        const int number = numberOf(value);
        std::memcpy(destination, &number, sizeof number);
    } else if (type == VALUE_STRING) {
        deliverText(value, static_cast<wchar_t*>(destination));
    }
}

template <class LookUp>
std::optional<std::wstring> textBy(LookUp lookUp) {
    std::vector<wchar_t> buffer(kPolicyTextCharacters, L'\0');
    if (!lookUp(buffer.data())) {
        return std::nullopt;
    }
    return std::wstring(buffer.data());
}

} // namespace

bool VXPolicyEnforcementImpl::getPolicyKeyValue(const SectionsHandle& policy, const PolicySetting& setting,
                                                const wchar_t* section, const wchar_t* key, void* destination,
                                                VALUETYPE type) {
    std::wstring value;
    if (!policy.getPropValue(setting, section, key, value)) {
        return false;
    }
    deliver(value, destination, type);
    return true;
}

bool VXPolicyEnforcementImpl::getPolicyKeyValue(const SectionsHandle& policy, const wchar_t* section,
                                                const wchar_t* key, void* destination, VALUETYPE type) {
    std::wstring value;
    if (!policy.getPropValue(section, key, value)) {
        return false;
    }
    deliver(value, destination, type);
    return true;
}

bool VXPolicyEnforcementImpl::getPolicyKeyValue(const Section& section, const std::wstring& key, void* destination,
                                                VALUETYPE type) {
    std::wstring value;
    if (!getPropValue(section, key, value)) {
        return false;
    }
    deliver(value, destination, type);
    return true;
}

bool VXPolicyEnforcementImpl::getPropValue(const Section& section, const std::wstring& key, std::wstring& value) {
    const auto found = section.find(key);
    if (found == section.end()) {
        return false;
    }
    value = found->second;
    return true;
}

bool VXPolicyEnforcementImpl::getSectionData(const SectionsHandle& policy, const wchar_t* section, Section& data) {
    if (policy.getSectionDataUsingSectionName(section, data)) {
        return true;
    }
    ST_TRACE(mgsFlow, 2, L"In VXPolicyEnforcementImpl::getSectionData, failed to get secData\n");
    return false;
}

std::string VXPolicyEnforcementImpl::getStringFromKey(const SectionsHandle& policy, const PolicySetting& setting,
                                                      const wchar_t* section, const wchar_t* key) {
    const auto text = detail::policyText(policy, setting, section, key);
    return text ? detail::narrowPolicyText(*text).value_or("") : "";
}

std::string VXPolicyEnforcementImpl::getStringFromKey(const SectionsHandle& policy, const wchar_t* section,
                                                      const wchar_t* key) {
    const auto text =
        textBy([&](wchar_t* buffer) { return getPolicyKeyValue(policy, section, key, buffer, VALUE_STRING); });
    return text ? detail::narrowPolicyText(*text).value_or("") : "";
}

namespace detail {

HVBEnterprise::PolicySetting featureSetting(const wchar_t* feature) {
    HVBEnterprise::PolicySetting setting;
    setting.m_productId = L"NODE_ST_1000";
    setting.m_featureId = feature;
    setting.m_featureName = feature;
    return setting;
}

std::optional<std::string> narrowPolicyText(const std::wstring& text) {
    if (text.size() < kNarrowBytes) { // each character takes a byte at the least
        constexpr std::size_t bytesPerCharacter = 6;
        const std::size_t declared = bytesPerCharacter * text.size() + 1;
        std::vector<char> buffer(declared, '\0');
        int size = static_cast<int>(declared);
        widechar2charstr(text.c_str(), buffer.data(), &size);
        if (std::string narrow(buffer.data()); narrow.size() < kNarrowBytes) {
            return narrow;
        }
    }
    ST_TRACE(mgsFlow, 1, L"VXPolicyEnforcementImpl - a policy text takes more than 1023 bytes\n");
    return std::nullopt;
}

int boundedCount(int declared) {
    if (declared > kMaxPolicyEntries) {
        ST_TRACE(mgsFlow, 1, L"VXPolicyEnforcementImpl - looks for %d entries only, of %d\n", kMaxPolicyEntries,
                 declared);
    }
    return std::clamp(declared, 0, kMaxPolicyEntries);
}

std::optional<int> policyInteger(const HVBEnterprise::SectionsHandle& policy,
                                 const HVBEnterprise::PolicySetting& setting, const wchar_t* section,
                                 const wchar_t* key) {
    int value = -1;
    if (!VXPolicyEnforcementImpl::getPolicyKeyValue(policy, setting, section, key, &value, VALUE_INTEGER)) {
        return std::nullopt;
    }
    return value;
}

std::optional<std::wstring> policyText(const HVBEnterprise::SectionsHandle& policy,
                                       const HVBEnterprise::PolicySetting& setting, const wchar_t* section,
                                       const wchar_t* key) {
    return textBy([&](wchar_t* buffer) {
        return VXPolicyEnforcementImpl::getPolicyKeyValue(policy, setting, section, key, buffer, VALUE_STRING);
    });
}

} // namespace detail
} // namespace Sentrel
