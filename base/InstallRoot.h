// The directory in front of every fixed path. Which source file answers is decided when a program is linked.
#pragma once

#include <string>

namespace Sentrel {

/// The install root without a trailing slash. The shipped programs link InstallRootShipped.cpp, which gives "": their
/// paths are fixed. Tests and ./run link InstallRootFromEnvironment.cpp, which reads SENTREL_INSTALL_ROOT once.
/// Threads: any. Owner: a constant for the life of the process.
const std::string& installRoot();

/// Whether the process may leave a core dump. The shipped programs may not; the others may where the environment has
/// SENTREL_CORE_DUMPS, with any value. Threads: any.
bool coreDumpsAllowed() noexcept;

} // namespace Sentrel
