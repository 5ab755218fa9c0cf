// The install root of a unit program, which its tests choose one after the other.
#pragma once

#include <string>

namespace testing_support {

/// What Sentrel::installRoot gives from now on, in this process and, by the environment, in those that it starts.
/// Requires that no other thread asks for a path meanwhile. Link sentrel_root_of_test in place of the others.
void setInstallRoot(const std::string& path);

} // namespace testing_support
