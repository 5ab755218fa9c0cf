// Whether the policy of this machine rules a setting.
#pragma once

#include "apps/sentrelctl/terminal/Json.h"
#include "platform/hvbagent/PolicyDocument.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Sentrel::ctl {

/// The policy in force on this machine, or why there is none or it is not known.
/// Threads: a plain value. Owner: the holder.
struct LocalPolicy {
    std::optional<bool> isManaged; ///< none: not known
    bool isThereNone = false;      ///< it is known that there is no policy
    std::optional<HVBEnterprise::agent::PolicyReading> policy;
    std::string why; ///< why there is no policy here, as a sentence without its end; empty when there is one
};

/// Looks at this machine's enrolment and at the policy that the daemon has saved. Only root and the daemon's user may
/// read that.
LocalPolicy localPolicy();

/// Whether a policy says something of a setting.
struct PolicyRuling {
    std::optional<bool> isRuled; ///< none: not known
    std::string text;            ///< a sentence without its end
};

/// @param setting the key of a setting in the settings file; "allow_block" and "private_ranges" stand for those lists.
/// Empty: no setting decided.
PolicyRuling rulingOf(std::string_view setting, const LocalPolicy& local);

/// "ruled", "managed" and "text".
Json rulingJson(const PolicyRuling& ruling, const LocalPolicy& local);

} // namespace Sentrel::ctl
