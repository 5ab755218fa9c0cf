// What the three passes of a policy share.
#pragma once

#include "managed/VXPolicyEnforcementImpl.h"

#include <optional>
#include <string>

namespace Sentrel::detail {

/// Selects a feature of the policy. The product id is the older one on purpose: the policies on the server bear it.
HVBEnterprise::PolicySetting featureSetting(const wchar_t* feature);

/// The narrow form of a policy's text. None when it takes more than the 1,023 bytes that its readers have for it.
std::optional<std::string> narrowPolicyText(const std::wstring& text);

/// A declared number of entries as far as it is looked through. Never below zero. What is beyond is traced: ask once a
/// list.
int boundedCount(int declared);

/// Looks up an integer. @return nothing when the key is missing.
std::optional<int> policyInteger(const HVBEnterprise::SectionsHandle& policy,
                                 const HVBEnterprise::PolicySetting& setting, const wchar_t* section,
                                 const wchar_t* key);

/// Looks up a text, which is cut where getPolicyKeyValue cuts it. @return nothing when the key is missing.
std::optional<std::wstring> policyText(const HVBEnterprise::SectionsHandle& policy,
                                       const HVBEnterprise::PolicySetting& setting, const wchar_t* section,
                                       const wchar_t* key);

} // namespace Sentrel::detail
