// The limits of the configuration files' library, each with its unit and its reason.
#pragma once

#include <cstddef>

/// A configuration file, in bytes; the real one has a few hundred. The parser takes several times that in memory.
inline constexpr std::size_t kMaxConfigFileBytes = std::size_t{1} << 20;
