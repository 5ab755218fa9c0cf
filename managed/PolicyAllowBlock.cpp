// The third pass: the sites that the administrator allows or blocks.
#include "daemon/Trace.h"
#include "managed/PolicyChecksum.h"
#include "managed/PolicyValues.h"
#include "managed/VXPolicyEnforcementImpl.h"
#include "store/STPreferenceController.h"

namespace Sentrel {
namespace {

constexpr const wchar_t* kSection = L"BlockAndAllowList";

STPreferenceController& preferences() {
    return *STPreferenceController::getInstance();
}

int precedenceOf(const HVBEnterprise::SectionsHandle& policy) {
    int precedence = -1;
    if (VXPolicyEnforcementImpl::getPolicyKeyValue(policy, kSection, L"bPrecedenceOverProhibitLists", &precedence,
                                                   VALUE_INTEGER)) {
        ST_TRACE(mgsFlow, 2, L"VXPolicyEnforcementImpl::enforceAllowBlockPolicy - Allow Over Block Precedence - %d\n",
                 precedence);
    } else {
        ST_TRACE(
            mgsFlow, 2,
            L"VXPolicyEnforcementImpl::enforceAllowBlockPolicy - Issue with ST_ALLOW_BLOCK_ALLOW_OVER_BLOCK_KEY\n");
    }
    return precedence;
}

/// The allow/block list as a policy tells it.
struct SiteList {
    std::vector<std::wstring> sites;
    std::vector<int> actions;
    std::string checksumText = " "; ///< then all sites, then all actions, without separators
};

/// @return false when the policy announces entries and lacks their section.
bool gatherSites(const HVBEnterprise::SectionsHandle& policy, int count, SiteList& list) {
    VXPolicyEnforcementImpl::Section section;
    if (!VXPolicyEnforcementImpl::getSectionData(policy, kSection, section)) {
        ST_TRACE(mgsFlow, 2,
                 L"VXPolicyEnforcementImpl::enforceAllowBlockPolicy - Issue with ST_ALLOW_BLOCK_SECTION_NAME\n");
        return false;
    }
    ST_TRACE(mgsFlow, 2, L"VXPolicyEnforcementImpl::enforceAllowBlockPolicy - secData size : %d\n",
             static_cast<int>(section.size()));
    VXPolicyEnforcementImpl::getAllowBlockListFromMap(section, list.sites, count, list.checksumText);
    VXPolicyEnforcementImpl::getAllowBlockActionListFromMap(section, list.actions, count, list.checksumText);
    ST_TRACE(mgsFlow, 2,
             L"VXPolicyEnforcementImpl::enforceAllowBlockPolicy - allowBlockList size : %d, allowBlockActionList size "
             L": %d\n",
             static_cast<int>(list.sites.size()), static_cast<int>(list.actions.size()));
    return true;
}

} // namespace

void VXPolicyEnforcementImpl::getAllowBlockListFromMap(const Section& section, std::vector<std::wstring>& sites,
                                                       int count, std::string& checksumText) {
    std::vector<wchar_t> site(kPolicyTextCharacters, L'\0');
    const int end = detail::boundedCount(count);
    for (int index = 0; index < end; ++index) {
        if (!getPolicyKeyValue(section, L"szSite" + std::to_wstring(index), site.data(), VALUE_STRING)) {
            ST_TRACE(mgsFlow, 2,
                     L"VXPolicyEnforcementImpl::enforceAllowBlockPolicy - Issue with ST_ALLOW_BLOCK_SITE_KEY\n");
            continue;
        }
        // A site that is too long keeps its place, so that the actions behind it stay with their sites; the controller
        // leaves it out.
        checksumText += detail::narrowPolicyText(site.data()).value_or("");
        sites.emplace_back(site.data());
    }
}

void VXPolicyEnforcementImpl::getAllowBlockActionListFromMap(const Section& section, std::vector<int>& actions,
                                                             int count, std::string& checksumText) {
    const int end = detail::boundedCount(count);
    for (int index = 0; index < end; ++index) {
        int action = -1;
        if (!getPolicyKeyValue(section, L"Action" + std::to_wstring(index), &action, VALUE_INTEGER)) {
            ST_TRACE(mgsFlow, 2,
                     L"VXPolicyEnforcementImpl::enforceAllowBlockPolicy - Issue with ST_ALLOW_BLOCK_ACTION_KEY\n");
            continue;
        }
        checksumText += std::to_string(action);
        actions.push_back(action);
    }
}

bool VXPolicyEnforcementImpl::enforceAllowBlockPolicy(const SectionsHandle& policy) {
    ST_TRACE(mgsFlow, 2, L"VXPolicyEnforcementImpl::enforceAllowBlockPolicy - Entered \n");
    const PolicySetting setting = detail::featureSetting(L"KPF_BlockAndAllowList");
    const auto count = detail::policyInteger(policy, setting, kSection, L"uiSiteCount");
    if (!count) {
        ST_TRACE(mgsFlow, 2, L"VXPolicyEnforcementImpl::enforceAllowBlockPolicy - No Category Present \n");
        return false;
    }
    const int precedence = precedenceOf(policy);
    SiteList list;
    const bool result = *count <= 0 || gatherSites(policy, *count, list);
    preferences().setAllowBlockDetails(precedence, list.sites, list.actions);
    preferences().signalPrefChange(ST_ALLOW_BLOCK_LIST);
    const std::uint8_t checksum = detail::checksumOf(list.checksumText);
    if (checksum != preferences().getAllowBlockListChecksum()) {
        ST_TRACE(mgsFlow, 3,
                 L"VXPolicyEnforcementImpl::enforceAllowBlockPolicy - Allow Block List changed, updating "
                 L"configuration\n");
        preferences().setAllowBlockListChecksum(checksum);
    }
    return result;
}

} // namespace Sentrel
