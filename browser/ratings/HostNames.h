// The names of hosts as rating lists have them.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

/// Free functions. Threads: any. Owner: none.
namespace Sentrel::ratings {

inline constexpr std::size_t kMaxHostBytes = 253; // what the DNS can carry

/// A host in the form in which addresses of pages have it; none when there can be no such host. Whatever @p text is,
/// this returns.
std::optional<std::string> normalisedHost(std::string_view text);

/// Whether a host is a literal address, which has no names above it.
bool isAddress(std::string_view host);

/// The host's labels from the last to the first with blanks between: "example site www". In the order of such keys
/// every name stands right behind those that it is below. An address stays as it is.
/// Requires that the host is in its one form.
std::string orderedKey(std::string_view host);

/// The host of such a key.
std::string hostOfKey(std::string_view key);

/// Whether the host of @p key is below that of @p parent.
inline bool isBelow(std::string_view key, std::string_view parent) {
    return key.size() > parent.size() && key.starts_with(parent) && key[parent.size()] == ' ';
}

} // namespace Sentrel::ratings
