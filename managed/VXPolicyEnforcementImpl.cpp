// The frame around a policy's three passes, and the first pass, the general policy.
//
// The frame runs general, categories and ratings, allow and block list. The general pass cannot fail. When the second
// one fails, the third does not run. A policy that switches its own enforcement off counts as enforced: no pass runs.
//
// In the general pass each key is read and applied by itself. A missing key leaves its preference as it is.
//
// What must stay so:
// - The first enable key marks the enable state as the policy's, also when it changes nothing: dashboard and properties
//   then take it from the policy. So noteEnableState comes before the comparison.
// - Only a change of the enable state is signalled. Clients see the other values of this pass at their next read.
// - The private ranges are replaced with every policy that has a count. The checksum only records what they were, and
//   its text begins with a blank.
// - Nothing is caught here. What the controller or the hub throws goes to the agent's library, which reports the policy
//   as failed.
#include "managed/VXPolicyEnforcementImpl.h"

#include "base/UserDBPath.h"
#include "daemon/Trace.h"
#include "daemon/VXControllerDaemon.h"
#include "managed/DocumentSource.h"
#include "managed/PolicyChecksum.h"
#include "managed/VXHVBAgentWrapper.h"
#include "platform/stlogger/STLogger.h"
#include "policy/PolicyLists.h"
#include "store/DBSettings.h"
#include "store/STPreferenceController.h"

#include <syslog.h>

#include <list>

namespace Sentrel {
namespace {

/// Looks up a switch. A missing key changes nothing.
template <class Apply>
void forSwitch(const policy::PolicySource& source, const policy::PolicyKey& key, Apply apply) {
    if (const auto value = source.number(key, 0)) {
        apply(policy::isOn(*value));
    }
}

/// From here on dashboard and properties take the enable state from the policy.
void noteEnableState(bool isOn) {
    VXController* controller = VXController::getInstance();
    controller->setPolicyEnabled(isOn);
    controller->agentWrapper()->setPolicyReceived();
}

void enforceEnableState(bool isOn) {
    noteEnableState(isOn);
    if (isOn == preferences().getEnableSentrel()) {
        return;
    }
    ST_TRACE(mgsFlow, 3, L"VXPolicyEnforcementImpl::enforceGeneralPolicy Sentrel status turned to %s\n",
             isOn ? "ON" : "OFF");
    preferences().setEnableSentrel(isOn);
    ST_TRACE(mgsFlow, 3, L"Signalling a Dashboard Status Change\n");
    LogMsg(LOG_DEBUG, "Signalling Dashboard for Preference Status Change");
    preferences().signalPrefChange(ST_ENABLE);
}

void enforceEventLogging(const policy::PolicySource& source) {
    forSwitch(source, policy::keys::kLogGreen, [](bool isOn) {
        ST_TRACE(mgsFlow, 3, L"VXPolicyEnforcementImpl::enforceGeneralPolicy Log GREEN Sites status turned to %s\n",
                 isOn ? "LOG" : "DONOTLOG");
        preferences().setLogGREENSitesStatus(isOn);
    });
    forSwitch(source, policy::keys::kLogAllowed, [](bool isOn) {
        ST_TRACE(mgsFlow, 3, L"VXPolicyEnforcementImpl::enforceGeneralPolicy Log Allow Sites status turned to %s\n",
                 isOn ? "LOG" : "DONOTLOG");
        preferences().setLogAllowSiteStatus(isOn);
    });
}

void enforceActions(const policy::PolicySource& source) {
    if (const auto value = source.number(policy::keys::kUnverified, 0)) {
        preferences().setSTUnVerifiedAction(static_cast<int>(policy::unverifiedAction(*value)));
    }
    forSwitch(source, policy::keys::kPhishing, [](bool isOn) {
        ST_TRACE(mgsFlow, 3, L"VXPolicyEnforcementImpl::enforceGeneralPolicy Phishing status turned to %s\n",
                 isOn ? "BLOCK" : "ALLOW");
        preferences().setBlockPhishingStatus(isOn);
    });
    forSwitch(source, policy::keys::kUnreachable, [](bool isOn) {
        ST_TRACE(mgsFlow, 3, L"VXPolicyEnforcementImpl::enforceGeneralPolicy Unreachable RPX Action turned to %s\n",
                 isOn ? "BLOCK" : "ALLOW");
        preferences().setRPXUnReachableAction(isOn);
    });
}

/// The list is stored with every policy that counts it; the checksum only records what it was.
void enforcePrivateRanges(const policy::PolicySource& source, int count) {
    std::list<std::string> ranges;
    std::string checksumText = " ";
    policy::TextEntries entries = policy::readTexts(source, policy::keys::kRange, detail::boundedCount(count));
    for (policy::TextEntry& entry : entries.found) {
        if (!entry.narrow) {
            detail::traceTooLong();
            continue;
        }
        checksumText += *entry.narrow;
        ST_TRACE(mgsFlow, 5, L"VXPolicyEnforcementImpl::enforceGeneralPolicy - Adding IP Range - %s\n",
                 trace::printable(*entry.narrow).c_str());
        ranges.push_back(std::move(*entry.narrow));
    }
    preferences().setPrivateIPRange(ranges);
    const std::uint8_t checksum = detail::checksumOf(checksumText);
    if (checksum != preferences().getPrivateIpChecksum()) {
        preferences().setPrivateIpChecksum(checksum);
    }
}

} // namespace

VXPolicyEnforcementImpl::VXPolicyEnforcementImpl() {
    ST_TRACE(mgsFlow, 3, L"VXPolicyEnforcementImpl::VXPolicyEnforcementImpl - Entered\n");
    constexpr std::size_t pathBytes = 128;
    char path[pathBytes] = "";
    if (!NPlgHelper::GetUserDBPath(path, sizeof path)) {
        ST_TRACE(mgsFlow, 1, L"VXPolicyEnforcementImpl::VXPolicyEnforcementImpl - Failed to get DB PATH\n");
        return;
    }
    if (CVXDBSettings settings; !settings.Init(path, false)) {
        ST_TRACE(mgsFlow, 1, L"VXPolicyEnforcementImpl::VXPolicyEnforcementImpl - Failed to init DB\n");
    }
}

VXPolicyEnforcementImpl::~VXPolicyEnforcementImpl() {
    ST_TRACE(mgsFlow, 3, L"VXPolicyEnforcementImpl::~VXPolicyEnforcementImpl - Entered\n");
}

bool VXPolicyEnforcementImpl::enforcePolicy(const std::wstring /*softwareId*/, const SectionsHandle& policy) {
    LogMsg(LOG_DEBUG, "VXPolicyEnforcementImpl::enforcePolicy() - Entered");
    ST_TRACE(mgsFlow, 5, L"VXPolicyEnforcementImpl::enforcePolicy() - Entered\n");
    bool result = true;
    const auto status = detail::DocumentSource(policy).number(policy::keys::kEnforce, 0);
    if (status) {
        ST_TRACE(mgsFlow, 5, L"Sentrel EnforcePolicy Status = %d\n", *status);
    }
    if (policy::isEnforced(status)) {
        enforceGeneralPolicy(policy);
        if (!enforceCategoryAndSiteRatingPolicy(policy)) {
            result = false;
            ST_TRACE(mgsFlow, 2, L"enforcePolicy::Error Sentrel Category Options Policy enforcement failed \n");
        } else if (!enforceAllowBlockPolicy(policy)) {
            result = false;
            ST_TRACE(mgsFlow, 2, L"enforcePolicy::Error Sentrel Allow-Block Options Policy enforcement failed \n");
        }
    }
    LogMsg(LOG_DEBUG, "VXPolicyEnforcementImpl::enforcePolicy - exiting");
    ST_TRACE(mgsFlow, 5, L"VXPolicyEnforcementImpl::enforcePolicy - exiting\n");
    return result;
}

bool VXPolicyEnforcementImpl::enforcePolicy(const std::wstring /*softwareId*/, const std::wstring /*user*/,
                                            const std::wstring /*domain*/, unsigned long /*session*/,
                                            HVBEnterprise::tag_AgentLogonState /*state*/,
                                            const SectionsHandle& /*policy*/) {
    return true;
}

bool VXPolicyEnforcementImpl::isPartialEnforcementSupported() {
    return false;
}

bool VXPolicyEnforcementImpl::enforceGeneralPolicy(const SectionsHandle& policy) {
    LogMsg(LOG_DEBUG, "VXPolicyEnforcementImpl::enforceGeneralPolicy() - Entered");
    ST_TRACE(mgsFlow, 2, L"VXPolicyEnforcementImpl::enforceGeneralPolicy - Entered\n");
    const detail::DocumentSource source(policy);
    forSwitch(source, policy::keys::kEnable, enforceEnableState);
    enforceEventLogging(source);
    enforceActions(source);
    if (const auto count = source.number(policy::keys::kRangeCount, 0)) {
        enforcePrivateRanges(source, *count);
    }
    ST_TRACE(mgsFlow, 5, L"VXPolicyEnforcementImpl::enforceGeneralPolicy - exiting\n");
    return true;
}

} // namespace Sentrel
