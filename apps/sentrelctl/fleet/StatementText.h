// What machines say of their policies, for people and for who waits for one policy.
#pragma once

#include "apps/sentrelctl/fleet/MachineDocuments.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Sentrel::ctl {

/// What a machine says of one policy.
struct PolicyWord {
    bool isInForce = false; ///< as a whole, as far as the machine can tell
    std::string why;        ///< why it is not; empty when it is
};

/// What @p document says of the policy with this hash. Nothing when it does not speak of it, or only that it is being
/// put into force.
std::optional<PolicyWord> wordOn(const MachineDocument& document, std::string_view sha256);

/// A table with what is in force on each machine, whether whole, and the last trouble. The documents are statements;
/// what machines of before wrote in their place is shown as far as it goes.
std::string resultsText(const std::vector<MachineDocument>& documents);

} // namespace Sentrel::ctl
