// Whom a policy that is pushed is for.
#pragma once

#include "platform/hvbagent/PolicyDocument.h"

#include <string>

namespace Sentrel::ctl {

/// The document with @p audience in it, otherwise as it is. One that says whom it is for, and one
/// that machines would refuse, stay as they are; so does one that is signed, whose signature would not fit any more.
std::string addressed(std::string document, const HVBEnterprise::agent::Audience& audience);

/// Why a policy with this identity is not for @p audience: it says so, or does not say it to a group. Empty when it is.
std::string whyNotFor(const HVBEnterprise::agent::PolicyIdentity& identity,
                      const HVBEnterprise::agent::Audience& audience);

} // namespace Sentrel::ctl
