// Every look-up of a policy ends here. A policy comes from the network, so its values are bounded at this one place:
// numbers by how many characters are read, texts by the buffer that they are delivered into.
//
// There are two sources with one face, policy::PolicySource, so that the rules in policy/ do not know which they read.
// DocumentSource asks the document for each key. SectionSource searches a section that was fetched once: the list of
// sites can have thousands of keys, and all of them are in one section.
//
// What must stay so:
// - A missing key is an empty result and never a default value. What a missing key means is the pass's decision.
// - A text that is cut leaves a trace line. The list readers also need the first character that was cut, which tells
//   whether the cut went through a code. The buffer does not hold it, so deliveredText looks a full text up again.
// - A text whose narrow form is too long is left out and not cut: half a URL is another URL.
// - A source has one large buffer for all its look-ups, so it serves one pass and one thread.
#include "managed/DocumentSource.h"

#include "daemon/Trace.h"
#include "policy/PolicyLimits.h"
#include "policy/PolicyLists.h"

#include <cstring>
#include <cwchar>
#include <memory>

namespace Sentrel {
namespace {

void deliverText(const std::wstring& value, wchar_t* destination) {
    const policy::PolicyText read = policy::readText(value);
    if (read.isCut()) {
        ST_TRACE(mgsFlow, 1, L"VXPolicyEnforcementImpl::getPolicyKeyValue - cut a text of %lu characters\n",
                 value.size());
    }
    std::wmemcpy(destination, read.text.c_str(), read.text.size() + 1);
}

void deliver(const std::wstring& value, void* destination, VALUETYPE type) {
    if (type == VALUE_INTEGER) {
        const int number = policy::readNumber(value).value;
        std::memcpy(destination, &number, sizeof number);
    } else if (type == VALUE_STRING) {
        deliverText(value, static_cast<wchar_t*>(destination));
    }
}

/// What a look-up delivered. @param whole looks the value up as it stands there: the buffer does not tell what was cut.
template <class Whole>
policy::PolicyText deliveredText(const detail::TextBuffer& buffer, const Whole& whole) {
    policy::PolicyText text{buffer.data(), L'\0'};
    return text.text.size() < policy::kMaxTextCharacters ? text : policy::readText(whole());
}

template <class LookUp>
std::string narrowOf(const LookUp& lookUp) {
    const auto buffer = std::make_unique<detail::TextBuffer>();
    return lookUp(buffer->data()) ? detail::narrowPolicyText(buffer->data()).value_or("") : "";
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
    return narrowOf(
        [&](wchar_t* buffer) { return getPolicyKeyValue(policy, setting, section, key, buffer, VALUE_STRING); });
}

std::string VXPolicyEnforcementImpl::getStringFromKey(const SectionsHandle& policy, const wchar_t* section,
                                                      const wchar_t* key) {
    return narrowOf([&](wchar_t* buffer) { return getPolicyKeyValue(policy, section, key, buffer, VALUE_STRING); });
}

namespace detail {

HVBEnterprise::PolicySetting featureSetting(std::string_view feature) {
    HVBEnterprise::PolicySetting setting;
    setting.m_productId = policy::wide(policy::kProduct);
    setting.m_featureId = policy::wide(feature);
    setting.m_featureName = setting.m_featureId;
    return setting;
}

void traceTooLong() {
    ST_TRACE(mgsFlow, 1, L"VXPolicyEnforcementImpl - a policy text takes more than 1023 bytes\n");
}

std::optional<std::string> narrowPolicyText(const std::wstring& text) {
    auto narrow = policy::narrowText(text);
    if (!narrow) {
        traceTooLong();
    }
    return narrow;
}

int boundedCount(int declared) {
    const int count = policy::boundedCount(declared);
    if (count < declared) {
        ST_TRACE(mgsFlow, 1, L"VXPolicyEnforcementImpl - looks for %d entries only, of %d\n", count, declared);
    }
    return count;
}

bool DocumentSource::find(const policy::PolicyKey& key, int index, void* destination, VALUETYPE type) const {
    const std::wstring section = policy::wide(key.section);
    const std::wstring name = policy::wide(policy::nameOf(key, index));
    return key.isReadAnywhere
               ? VXPolicyEnforcementImpl::getPolicyKeyValue(m_document, section.c_str(), name.c_str(), destination,
                                                            type)
               : VXPolicyEnforcementImpl::getPolicyKeyValue(m_document, featureSetting(key.feature), section.c_str(),
                                                            name.c_str(), destination, type);
}

std::wstring DocumentSource::whole(const policy::PolicyKey& key, int index) const {
    const std::wstring section = policy::wide(key.section);
    const std::wstring name = policy::wide(policy::nameOf(key, index));
    std::wstring value;
    static_cast<void>(key.isReadAnywhere ? m_document.getPropValue(section, name, value)
                                         : m_document.getPropValue(featureSetting(key.feature), section, name, value));
    return value;
}

std::optional<int> DocumentSource::number(const policy::PolicyKey& key, int index) const {
    int value = -1;
    return find(key, index, &value, VALUE_INTEGER) ? std::optional(value) : std::nullopt;
}

std::optional<policy::PolicyText> DocumentSource::text(const policy::PolicyKey& key, int index) const {
    if (!find(key, index, m_buffer.data(), VALUE_STRING)) {
        return std::nullopt;
    }
    return deliveredText(m_buffer, [&] { return whole(key, index); });
}

std::optional<int> SectionSource::number(const policy::PolicyKey& key, int index) const {
    int value = -1;
    const std::wstring name = policy::wide(policy::nameOf(key, index));
    return VXPolicyEnforcementImpl::getPolicyKeyValue(m_section, name, &value, VALUE_INTEGER) ? std::optional(value)
                                                                                              : std::nullopt;
}

std::optional<policy::PolicyText> SectionSource::text(const policy::PolicyKey& key, int index) const {
    const std::wstring name = policy::wide(policy::nameOf(key, index));
    if (!VXPolicyEnforcementImpl::getPolicyKeyValue(m_section, name, m_buffer.data(), VALUE_STRING)) {
        return std::nullopt;
    }
    return deliveredText(m_buffer, [&] { return m_section.at(name); });
}

} // namespace detail
} // namespace Sentrel
