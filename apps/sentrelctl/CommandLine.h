// The command line as a whole.
#pragma once

#include "apps/sentrelctl/Session.h"

#include <string>
#include <vector>

namespace Sentrel::ctl {

/// Parses @p arguments and does what the verb does, or writes help or version.
/// @throws Failure for bad usage, and what the verb throws.
void parseAndWork(const std::vector<std::string>& arguments, Session& session);

} // namespace Sentrel::ctl
