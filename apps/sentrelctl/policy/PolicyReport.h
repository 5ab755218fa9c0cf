// A policy file as the verbs read, check and tell of it.
#pragma once

#include "apps/sentrelctl/policy/PolicyCheck.h"
#include "apps/sentrelctl/terminal/Json.h"
#include "apps/sentrelctl/terminal/Output.h"
#include "platform/hvbagent/PolicyDocument.h"

#include <string>

namespace Sentrel::ctl {

/// What became of a policy that was read and checked.
struct CheckedPolicy {
    std::string message; ///< the bytes that a machine would get
    HVBEnterprise::agent::PolicyReading reading;
    PolicyCheck check; ///< empty when it is refused

    /// @param mayHaveGap whether it is also fine when actions of the list go to other sites.
    bool isFine(bool mayHaveGap) const {
        return reading.refused.empty() && check.isWhole() && (mayHaveGap || check.gap.empty());
    }
    /// "enforced", "gap", "not enforced", "fails" or "refused".
    const char* verdict() const;
};

/// Reads @p message as a machine does that has these keys, and checks it.
CheckedPolicy checkedPolicy(std::string message, const HVBEnterprise::agent::PublicKeys& keys);

/// "policy 7 (office)", printable.
std::string policyName(const HVBEnterprise::agent::PolicyIdentity& identity);

/// All that there is to say, for people.
std::string policyText(const CheckedPolicy& policy, const Palette& palette);
/// Its problems alone, a line each.
std::string problemsText(const CheckedPolicy& policy, const Palette& palette);
/// The same for programs.
Json policyJson(const CheckedPolicy& policy);

/// Why it is not fine, in a few words. A gap is named when there is nothing worse.
std::string whyNotFine(const CheckedPolicy& policy);

} // namespace Sentrel::ctl
