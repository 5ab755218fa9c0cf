// What a policy would do to a machine, told without one.
#pragma once

#include "platform/hvbagent/PolicyDocument.h"

#include <string>
#include <vector>

namespace Sentrel::ctl {

/// Something in a policy that is wrong, or probably not meant.
struct PolicyProblem {
    bool isFatal;      ///< a part of the policy would not be put into force
    std::string place; ///< a JSON pointer
    std::string what;
};

struct PolicyCheck {
    bool isEnforced = true;           ///< the policy does not switch its own enforcement off
    std::vector<std::string> effects; ///< in words, in the order in which they happen
    std::vector<PolicyProblem> problems;
    /// Where a site is missing and its action is not, or the other way round, and what comes of it: the actions behind
    /// it go to other sites. Empty when there is no such place. A machine reports success all the same.
    std::string gap;

    /// Whether enforcement would report success.
    bool isWhole() const;
};

/// Goes through a policy as the daemon does. Whatever is in it, this returns; its texts are not made printable.
PolicyCheck checkPolicy(const HVBEnterprise::SectionsHandle& document);

} // namespace Sentrel::ctl
