// The third pass: the sites that the administrator allows or blocks.
#include "daemon/Trace.h"
#include "managed/DocumentSource.h"
#include "managed/PolicyChecksum.h"
#include "managed/VXPolicyEnforcementImpl.h"
#include "policy/PolicyLists.h"
#include "store/STPreferenceController.h"

namespace Sentrel {
namespace {

int precedenceOf(const policy::PolicySource& source) {
    const auto precedence = source.number(policy::keys::kPrecedence, 0);
    if (precedence) {
        ST_TRACE(mgsFlow, 2, L"VXPolicyEnforcementImpl::enforceAllowBlockPolicy - Allow Over Block Precedence - %d\n",
                 *precedence);
    } else {
        ST_TRACE(
            mgsFlow, 2,
            L"VXPolicyEnforcementImpl::enforceAllowBlockPolicy - Issue with ST_ALLOW_BLOCK_ALLOW_OVER_BLOCK_KEY\n");
    }
    return precedence.value_or(policy::kPrecedenceByDefault);
}

/// The allow/block list as the policy gives it.
struct SiteList {
    std::vector<std::wstring> sites;
    std::vector<int> actions;
    std::string checksumText = " "; ///< then all sites, then all actions, without separators
};

/// @return false when the policy announces entries and lacks their section.
bool gatherSites(const HVBEnterprise::SectionsHandle& policy, int count, SiteList& list) {
    VXPolicyEnforcementImpl::Section section;
    if (!VXPolicyEnforcementImpl::getSectionData(policy, policy::wide(policy::keys::kSiteCount.section).c_str(),
                                                 section)) {
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
    policy::TextEntries entries =
        policy::readTexts(detail::SectionSource(section), policy::keys::kSite, detail::boundedCount(count));
    for (std::size_t at = 0; at < entries.missing.size(); ++at) {
        ST_TRACE(mgsFlow, 2,
                 L"VXPolicyEnforcementImpl::enforceAllowBlockPolicy - Issue with ST_ALLOW_BLOCK_SITE_KEY\n");
    }
    for (policy::TextEntry& entry : entries.found) {
        // A site that is too long keeps its place, so that the actions behind it stay with their sites; the controller
        // leaves it out.
        if (!entry.narrow) {
            detail::traceTooLong();
        }
        checksumText += entry.narrow.value_or("");
        sites.push_back(std::move(entry.text));
    }
}

void VXPolicyEnforcementImpl::getAllowBlockActionListFromMap(const Section& section, std::vector<int>& actions,
                                                             int count, std::string& checksumText) {
    const policy::NumberEntries entries =
        policy::readNumbers(detail::SectionSource(section), policy::keys::kSiteAction, detail::boundedCount(count));
    for (std::size_t at = 0; at < entries.missing.size(); ++at) {
        ST_TRACE(mgsFlow, 2,
                 L"VXPolicyEnforcementImpl::enforceAllowBlockPolicy - Issue with ST_ALLOW_BLOCK_ACTION_KEY\n");
    }
    for (const int action : entries.found) {
        checksumText += std::to_string(action);
        actions.push_back(action);
    }
}

bool VXPolicyEnforcementImpl::enforceAllowBlockPolicy(const SectionsHandle& policy) {
    ST_TRACE(mgsFlow, 2, L"VXPolicyEnforcementImpl::enforceAllowBlockPolicy - Entered \n");
    const detail::DocumentSource source(policy);
    const auto count = source.number(policy::keys::kSiteCount, 0);
    if (!count) {
        ST_TRACE(mgsFlow, 2, L"VXPolicyEnforcementImpl::enforceAllowBlockPolicy - No Category Present \n");
        return false;
    }
    const int precedence = precedenceOf(source);
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
