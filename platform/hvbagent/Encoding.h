// Encodings and hashes that several documents share.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Free functions without state. Threads: any. Owner: none.
namespace HVBEnterprise::agent {

/// Makes libsodium ready. Cheap after the first call. @throws std::runtime_error when it cannot be used.
void requireSodium();

std::string base64Of(std::string_view bytes);
/// Nothing for what is not base64 in the usual alphabet with its padding, without blanks.
std::optional<std::string> bytesOfBase64(std::string_view text);

/// SHA-256 in hexadecimal.
std::string sha256Of(std::string_view bytes);

/// Wide text of UTF-8. Requires that it is valid; what is not is left out.
std::wstring wideOf(std::string_view utf8);

/// The current time as ISO 8601 in UTC, with milliseconds.
std::string timeText();

/// An Ed25519 public key.
inline constexpr std::size_t kPublicKeyBytes = 32;
using PublicKey = std::array<unsigned char, kPublicKeyBytes>;
using PublicKeys = std::vector<PublicKey>;

/// @p text made printable and short, for a log line or a result.
std::string shortPrintable(std::string_view text);

} // namespace HVBEnterprise::agent
