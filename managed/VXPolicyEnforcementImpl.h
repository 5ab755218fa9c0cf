// Puts the central policy into force.
#pragma once

#include "platform/hvbagent/AgentDocuments.h"
#include "policy/PolicyLimits.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Sentrel {

/// What a look-up delivers.
enum VALUETYPE : int {
    VALUE_INTEGER = 0, ///< a decimal number, as a signed 32-bit integer; a text that is none reads as 0
    VALUE_STRING = 1,  ///< a wide text with its terminator, in a buffer of kPolicyTextCharacters
};

/// Room for a policy text with its terminator. A longer one is cut, with a trace line.
inline constexpr std::size_t kPolicyTextCharacters = policy::kMaxTextCharacters + 1;

/// Takes the policy from the agent library, key by key, and hands what it finds to the preference controller. Three
/// passes: general, categories and ratings, allow and block list. Nothing is rolled back and nothing tried again.
/// What the controller or the broker throws passes on to the library; what was written stays.
/// Threads: the library's. Owner: the library.
class VXPolicyEnforcementImpl : public HVBEnterprise::IAgentPolicyEnforcement {
public:
    using SectionsHandle = HVBEnterprise::SectionsHandle;
    using PolicySetting = HVBEnterprise::PolicySetting;
    using Section = std::map<std::wstring, std::wstring>;

    /// Opens the settings file once, so that a machine whose file cannot be used says so before any policy comes.
    VXPolicyEnforcementImpl();
    ~VXPolicyEnforcementImpl() override;

    /// @return true when all passes went through, or the policy says that it is not to be enforced.
    bool enforcePolicy(const std::wstring softwareId, const SectionsHandle& policy) override;
    /// Logon-time enforcement is not offered: true, and nothing is done.
    bool enforcePolicy(const std::wstring softwareId, const std::wstring user, const std::wstring domain,
                       unsigned long session, HVBEnterprise::tag_AgentLogonState state,
                       const SectionsHandle& policy) override;
    /// Never.
    bool isPartialEnforcementSupported() override;

    /// The passes. A false result says that the policy lacks what the pass cannot do without.
    bool enforceGeneralPolicy(const SectionsHandle& policy);
    bool enforceCategoryAndSiteRatingPolicy(const SectionsHandle& policy);
    bool enforceAllowBlockPolicy(const SectionsHandle& policy);

    /// Look-ups. @p destination is an int or a wide buffer, as @p type says; another type leaves it as it is.
    /// @return whether the key was found; otherwise the destination stays.
    static bool getPolicyKeyValue(const SectionsHandle& policy, const PolicySetting& setting, const wchar_t* section,
                                  const wchar_t* key, void* destination, VALUETYPE type);
    static bool getPolicyKeyValue(const SectionsHandle& policy, const wchar_t* section, const wchar_t* key,
                                  void* destination, VALUETYPE type);
    static bool getPolicyKeyValue(const Section& section, const std::wstring& key, void* destination, VALUETYPE type);

    static bool getSectionData(const SectionsHandle& policy, const wchar_t* section, Section& data);

    /// A text in narrow form, of at most 1,023 bytes; empty when the key is missing.
    static std::string getStringFromKey(const SectionsHandle& policy, const PolicySetting& setting,
                                        const wchar_t* section, const wchar_t* key);
    static std::string getStringFromKey(const SectionsHandle& policy, const wchar_t* section, const wchar_t* key);

    static bool getPropValue(const Section& section, const std::wstring& key, std::wstring& value);

    /// Collects "szSite" and "Action" entries of the allow/block list below @p count. What is found is added to the
    /// checksum's text too; an index without its key is skipped in that list alone.
    static void getAllowBlockListFromMap(const Section& section, std::vector<std::wstring>& sites, int count,
                                         std::string& checksumText);
    static void getAllowBlockActionListFromMap(const Section& section, std::vector<int>& actions, int count,
                                               std::string& checksumText);
};

} // namespace Sentrel
