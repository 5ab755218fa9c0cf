#include "platform/hvbagent/AgentDocuments.h"

namespace HVBEnterprise {
namespace {

bool find(const SectionsHandle::Sections& sections, const std::wstring& section, const std::wstring& key,
          std::wstring& value) {
    const auto foundSection = sections.find(section);
    if (foundSection == sections.end()) {
        return false;
    }
    const auto foundKey = foundSection->second.find(key);
    if (foundKey == foundSection->second.end()) {
        return false;
    }
    value = foundKey->second;
    return true;
}

} // namespace

void SectionsHandle::goOn() const {
    if (m_breakOff != nullptr && *m_breakOff) {
        throw BrokenOff();
    }
}

bool SectionsHandle::getPropValue(const PolicySetting& setting, const std::wstring& section, const std::wstring& key,
                                  std::wstring& value) const {
    goOn();
    const auto feature = m_features.find(setting.m_featureId);
    return feature != m_features.end() && find(feature->second, section, key, value);
}

bool SectionsHandle::getPropValue(const std::wstring& section, const std::wstring& key, std::wstring& value) const {
    goOn();
    if (find(m_sections, section, key, value)) {
        return true;
    }
    for (const auto& [name, sections] : m_features) {
        if (find(sections, section, key, value)) {
            return true;
        }
    }
    return false;
}

bool SectionsHandle::getSectionDataUsingSectionName(const std::wstring& section, Section& data) const {
    goOn();
    Section merged;
    bool isThere = false;
    const auto merge = [&](const Sections& sections) {
        if (const auto found = sections.find(section); found != sections.end()) {
            isThere = true;
            merged.insert(found->second.begin(), found->second.end());
        }
    };
    merge(m_sections);
    for (const auto& [name, sections] : m_features) {
        merge(sections);
    }
    if (isThere) {
        data.swap(merged);
    }
    return isThere;
}

void SectionsHandle::insert(const std::wstring& section, const std::wstring& key, const std::wstring& value) {
    m_sections[section][key] = value;
}

void SectionsHandle::insertForFeature(const std::wstring& feature, const std::wstring& section, const std::wstring& key,
                                      const std::wstring& value) {
    m_features[feature][section][key] = value;
}

} // namespace HVBEnterprise
