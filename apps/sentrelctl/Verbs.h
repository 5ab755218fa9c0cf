// The list of all verbs. Each file under verbs/ gives a table of its own.
#pragma once

#include "apps/sentrelctl/Verb.h"

#include <span>
#include <string_view>

namespace Sentrel::ctl {

using Verbs = std::span<const Verb>;
using VerbTable = Verbs (*)();

// One function a file under verbs/.
Verbs statusVerbs();
Verbs doctorVerbs();
Verbs hubVerbs();
Verbs eventVerbs();
Verbs decryptVerbs();
Verbs logVerbs();
Verbs preferenceVerbs();
Verbs listVerbs();
Verbs listFileVerbs();
Verbs categoryVerbs();
Verbs requestVerbs();
Verbs checkVerbs();
Verbs ratingVerbs();
Verbs watchVerbs();
Verbs debugVerbs();
Verbs proxyVerbs();
Verbs settingsVerbs();
Verbs policyVerbs();
Verbs fleetVerbs();
Verbs agentVerbs();

/// The tables in the order in which the help lists them.
std::span<const VerbTable> allVerbs();

/// The help of a word that groups verbs; empty for any other word.
const char* groupDescription(std::string_view group);

} // namespace Sentrel::ctl
