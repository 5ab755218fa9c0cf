// The frame of a policy's enforcement and its first pass, the general policy.
#include "managed/VXPolicyEnforcementImpl.h"

#include "base/UserDBPath.h"
#include "daemon/Trace.h"
#include "daemon/VXControllerDaemon.h"
#include "managed/PolicyChecksum.h"
#include "managed/PolicyValues.h"
#include "managed/VXHVBAgentWrapper.h"
#include "platform/stlogger/STLogger.h"
#include "store/DBSettings.h"
#include "store/STPreferenceController.h"

#include <list>

namespace Sentrel {
namespace {

using HVBEnterprise::PolicySetting;
using HVBEnterprise::SectionsHandle;

constexpr int kDebugSeverity = 7;

constexpr const wchar_t* kActionSection = L"ActionEnforcement";
constexpr const wchar_t* kEventSection = L"EventLogging";

STPreferenceController& preferences() {
    return *STPreferenceController::getInstance();
}

/// Looks up a switch: on only for exactly 1. A missing key changes nothing.
template <class Apply>
void forSwitch(const SectionsHandle& policy, const PolicySetting& setting, const wchar_t* section, const wchar_t* key,
               Apply apply) {
    if (const auto value = detail::policyInteger(policy, setting, section, key)) {
        apply(*value == 1);
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
    LogMsg(kDebugSeverity, "Signalling Dashboard for Preference Status Change");
    preferences().signalPrefChange(ST_ENABLE);
}

/// The policy's own codes are not those of the preference: 0 blocks.
int unverifiedAction(int policyValue) {
    constexpr int allow = 1;
    constexpr int warn = 2;
    constexpr int block = 3;
    if (policyValue == 0) {
        return block;
    }
    return policyValue == 2 ? warn : allow;
}

void enforceEventLogging(const SectionsHandle& policy, const PolicySetting& setting) {
    forSwitch(policy, setting, kEventSection, L"bGreenRatedSites", [](bool isOn) {
        ST_TRACE(mgsFlow, 3, L"VXPolicyEnforcementImpl::enforceGeneralPolicy Log GREEN Sites status turned to %s\n",
                 isOn ? "LOG" : "DONOTLOG");
        preferences().setLogGREENSitesStatus(isOn);
    });
    forSwitch(policy, setting, kEventSection, L"bAllowedConfiguredBlockAllowList", [](bool isOn) {
        ST_TRACE(mgsFlow, 3, L"VXPolicyEnforcementImpl::enforceGeneralPolicy Log Allow Sites status turned to %s\n",
                 isOn ? "LOG" : "DONOTLOG");
        preferences().setLogAllowSiteStatus(isOn);
    });
}

void enforceActions(const SectionsHandle& policy, const PolicySetting& setting) {
    if (const auto value = detail::policyInteger(policy, setting, kActionSection, L"applyActionNonRPX")) {
        preferences().setSTUnVerifiedAction(unverifiedAction(*value));
    }
    forSwitch(policy, setting, kActionSection, L"bPhishingBlock", [](bool isOn) {
        ST_TRACE(mgsFlow, 3, L"VXPolicyEnforcementImpl::enforceGeneralPolicy Phishing status turned to %s\n",
                 isOn ? "BLOCK" : "ALLOW");
        preferences().setBlockPhishingStatus(isOn);
    });
    forSwitch(policy, setting, kActionSection, L"bRpxFailClose", [](bool isOn) {
        ST_TRACE(mgsFlow, 3, L"VXPolicyEnforcementImpl::enforceGeneralPolicy Unreachable RPX Action turned to %s\n",
                 isOn ? "BLOCK" : "ALLOW");
        preferences().setRPXUnReachableAction(isOn);
    });
}

/// The list is stored with every policy that counts it; the checksum only records what it was.
void enforcePrivateRanges(const SectionsHandle& policy, int count) {
    std::list<std::string> ranges;
    std::string checksumText = " ";
    std::vector<wchar_t> value(kPolicyTextCharacters, L'\0');
    const int end = detail::boundedCount(count);
    for (int index = 0; index < end; ++index) {
        const std::wstring key = L"szAgumentIP_" + std::to_wstring(index);
        if (!VXPolicyEnforcementImpl::getPolicyKeyValue(policy, kActionSection, key.c_str(), value.data(),
                                                        VALUE_STRING)) {
            continue;
        }
        if (auto range = detail::narrowPolicyText(value.data())) {
            checksumText += *range;
            ST_TRACE(mgsFlow, 5, L"VXPolicyEnforcementImpl::enforceGeneralPolicy - Adding IP Range - %s\n",
                     trace::printable(*range).c_str());
            ranges.push_back(std::move(*range));
        }
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
    LogMsg(kDebugSeverity, "VXPolicyEnforcementImpl::enforcePolicy() - Entered");
    ST_TRACE(mgsFlow, 5, L"VXPolicyEnforcementImpl::enforcePolicy() - Entered\n");
    bool result = true;
    int status = -1;
    const bool isTold = getPolicyKeyValue(policy, L"NODE_ST_1070UNIX", L"EnforcePolicy", &status, VALUE_INTEGER);
    if (isTold) {
        ST_TRACE(mgsFlow, 5, L"Sentrel EnforcePolicy Status = %d\n", status);
    }
    if (!isTold || status > 0) {
        enforceGeneralPolicy(policy);
        if (!enforceCategoryAndSiteRatingPolicy(policy)) {
            result = false;
            ST_TRACE(mgsFlow, 2, L"enforcePolicy::Error Sentrel Category Options Policy enforcement failed \n");
        } else if (!enforceAllowBlockPolicy(policy)) {
            result = false;
            ST_TRACE(mgsFlow, 2, L"enforcePolicy::Error Sentrel Allow-Block Options Policy enforcement failed \n");
        }
    }
    LogMsg(kDebugSeverity, "VXPolicyEnforcementImpl::enforcePolicy - exiting");
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
    LogMsg(kDebugSeverity, "VXPolicyEnforcementImpl::enforceGeneralPolicy() - Entered");
    ST_TRACE(mgsFlow, 2, L"VXPolicyEnforcementImpl::enforceGeneralPolicy - Entered\n");
    const PolicySetting setting = detail::featureSetting(L"KPF_General");
    forSwitch(policy, setting, L"Sentrel", L"bEnableSentrel", enforceEnableState);
    enforceEventLogging(policy, setting);
    enforceActions(policy, setting);
    if (const auto count = detail::policyInteger(policy, setting, kActionSection, L"uiAgumentIPCount")) {
        enforcePrivateRanges(policy, *count);
    }
    ST_TRACE(mgsFlow, 5, L"VXPolicyEnforcementImpl::enforceGeneralPolicy - exiting\n");
    return true;
}

} // namespace Sentrel
