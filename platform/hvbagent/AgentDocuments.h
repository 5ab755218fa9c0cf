// The documents that pass between the management agent and a module, and who takes them.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace HVBEnterprise {

/// Selects a policy by the product and the feature that it belongs to. A module fills the first three texts; the rest
/// is the library's and stays empty here.
struct PolicySetting {
    std::wstring m_productId;
    std::wstring m_featureId; ///< the feature that is looked in
    std::wstring m_featureName;
    std::wstring m_typeId;
    std::wstring m_typeName;
    std::wstring m_policyName;
    std::map<std::wstring, std::wstring> m_attributes;
};

/// Leaves a module's call when the library is to end: the next look-up of a document throws it. A module lets it
/// through, like anything that a look-up throws.
class BrokenOff : public std::runtime_error {
public:
    BrokenOff() : std::runtime_error("broken off, since the agent's client ends") {}
};

/// Named sections of keys and values: a policy to read, or properties to fill.
/// Threads: one at a time. Owner: whoever built it; a module sees the library's for the length of a callback.
class SectionsHandle {
public:
    using Section = std::map<std::wstring, std::wstring>;

    /// From when @p flag is true on, every look-up throws BrokenOff.
    void breakOffWith(std::shared_ptr<const std::atomic<bool>> flag) { m_breakOff = std::move(flag); }

    /// Looks a key up in the section of the feature that @p setting names.
    /// @return whether it was found; otherwise @p value stays.
    bool getPropValue(const PolicySetting& setting, const std::wstring& section, const std::wstring& key,
                      std::wstring& value) const;

    /// Looks a key up by the section's name alone: first in the sections that belong to no feature, then in those of
    /// the features, in the order of their names.
    bool getPropValue(const std::wstring& section, const std::wstring& key, std::wstring& value) const;

    /// All keys of the sections of that name; of a key that is in several, the value that getPropValue finds.
    /// @return whether there is such a section; otherwise @p data stays.
    bool getSectionDataUsingSectionName(const std::wstring& section, Section& data) const;

    /// Adds a property, or replaces its value.
    void insert(const std::wstring& section, const std::wstring& key, const std::wstring& value);

    /// As insert, in a section of a feature.
    void insertForFeature(const std::wstring& feature, const std::wstring& section, const std::wstring& key,
                          const std::wstring& value);

    using Sections = std::map<std::wstring, Section>;
    const Sections& sections() const { return m_sections; }
    const std::map<std::wstring, Sections>& features() const { return m_features; }

private:
    void goOn() const;

    Sections m_sections;
    std::map<std::wstring, Sections> m_features;
    std::shared_ptr<const std::atomic<bool>> m_breakOff; ///< null: nothing breaks look-ups off
};

/// The state of a user's session.
enum tag_AgentLogonState : std::int32_t {
    AGENT_LOGON = 0,
    AGENT_LOGOFF = 1,
};

/// Fills the document of the machine's properties.
/// Threads: the library's own, one call at a time. Owner: the library, from the registration on.
class IAgentPropertyCollection {
public:
    virtual ~IAgentPropertyCollection() = default;

    /// @param full whether every section is wanted, or "General" alone.
    virtual bool collectProperties(bool full, SectionsHandle& properties) = 0;
    virtual bool isSoftwareExists(const std::wstring softwareId) = 0;
};

/// Puts a policy into force.
/// Threads: the library's own, one call at a time. Owner: the library, from the registration on.
class IAgentPolicyEnforcement {
public:
    virtual ~IAgentPolicyEnforcement() = default;

    /// @return whether the whole policy is in force.
    virtual bool enforcePolicy(const std::wstring softwareId, const SectionsHandle& policy) = 0;
    /// The same at a user's logon.
    virtual bool enforcePolicy(const std::wstring softwareId, const std::wstring user, const std::wstring domain,
                               unsigned long session, tag_AgentLogonState state, const SectionsHandle& policy) = 0;
    /// Whether a part of a policy may be given.
    virtual bool isPartialEnforcementSupported() = 0;
};

/// Small helpers of the agent library.
/// Threads: any. Owner: none, it is only a scope.
class HvbAgentUtils {
public:
    /// The narrow form of a wide text: UTF-8, with U+FFFD for what is no character.
    static std::string wstringToString(const std::wstring& text);
};

} // namespace HVBEnterprise
