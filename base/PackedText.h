// Wide texts in few bytes, for what is kept on the disk.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

/// Free functions. Threads: any. Owner: none.
namespace Sentrel {

/// @p wide, the bytes of a wide text (UCS-4LE), in fewer bytes: one a character where every character is below 256,
/// then deflated. Any bytes may come, and unpackWide gives the same ones back; what does not get smaller gets one byte
/// longer. The first byte says how the rest is to be read: r as it is, n one byte a character, d the same deflated, w
/// deflated; behind d and w stands the size before the deflating, four bytes, low byte first.
std::string packWide(std::string_view wide);

/// What packWide was given. @return nothing when @p packed is not its work, or when it holds more than @p maxBytes.
std::optional<std::string> unpackWide(std::string_view packed, std::size_t maxBytes);

} // namespace Sentrel
