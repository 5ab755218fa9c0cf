// The two messages with which a stored password is opened over the event socket.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Sentrel::ctl {

inline constexpr std::string_view kDecryptMark = "Decrypt ";
/// The daemon reads one block of this size and answers with one.
inline constexpr std::size_t kDecryptBlockBytes = 1024;
/// The longest encrypted text: what is left of a block behind the mark and in front of the NUL.
inline constexpr std::size_t kMaxEncryptedBytes = kDecryptBlockBytes - kDecryptMark.size() - 1;

/// The request for @p encrypted. @throws Failure (bad usage) when the text is empty, too long or holds a NUL.
std::string decryptRequest(std::string_view encrypted);

/// The clear text in @p reply, up to its padding.
/// @throws Failure when the reply is not whole, or empty: the daemon has no other way to say that it could not.
std::string decryptedText(std::string_view reply, const std::string& socketPath);

} // namespace Sentrel::ctl
