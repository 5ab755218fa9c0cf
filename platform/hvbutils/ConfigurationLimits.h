// The limits of the configuration files' library, each with its unit and its reason.
#pragma once

#include <cstddef>

/// A configuration file, in bytes; the real one has a few hundred. The parser compares each attribute of a tag with
/// those before it: 64 KiB of them take it a fifth of a second, and 1 MiB took it more than two minutes.
inline constexpr std::size_t kMaxConfigFileBytes = std::size_t{64} << 10;
/// Elements inside one another; the real file has two. Stays below the parser's own limit of 256, whose message tells
/// the reader to switch that limit off.
inline constexpr int kMaxConfigDepth = 100;
