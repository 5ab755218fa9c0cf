// The checksum by which a changed policy list is noted.
#pragma once

#include <cstdint>
#include <string>

/// The two's complement of the sum of the first @p length bytes, in eight bits: a block and its checksum sum up to
/// zero. 0 for a length of 0, whatever @p bytes is. Threads: any.
std::uint8_t calculate_checksum(const char* bytes, std::uint8_t length);

namespace Sentrel::detail {

/// The checksum of a list's text. The length is cut to eight bits, so only the first bytes of a text of more than 255
/// count. That must stay so: stored checksums have to keep matching.
inline std::uint8_t checksumOf(const std::string& text) {
    return calculate_checksum(text.data(), static_cast<std::uint8_t>(text.size()));
}

} // namespace Sentrel::detail
