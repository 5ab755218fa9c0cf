// The bounds of a policy, each with its unit and reason. A policy comes over the network.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Sentrel::policy {

// The document.

/// Bytes of a policy document: 100,000 sites take some ten megabytes.
inline constexpr std::size_t kMaxPolicyBytes = std::size_t{16} << 20U;
/// Features, sections outside of features, and sections of each feature.
inline constexpr std::size_t kMaxPolicyGroups = 200;
/// Keys of all sections together.
inline constexpr std::size_t kMaxPolicyKeys = 400'000;
/// Characters of a feature's, a section's and a key's name, and of the policy's id.
inline constexpr std::size_t kMaxNameCharacters = 256;
/// Bytes of a value, as UTF-8.
inline constexpr std::size_t kMaxValueBytes = std::size_t{64} << 10U;

/// The epochs that a document can have. The last is one that nobody gets to by a step a day.
inline constexpr std::int64_t kFirstEpoch = 1;
inline constexpr std::int64_t kLastEpoch = 1'000'000;

// A value.

/// Characters of a text. A longer one is cut.
inline constexpr std::size_t kMaxTextCharacters = 8191;
/// Bytes of a text's narrow form, which is what every reader of a list has room for. A longer one is left out.
inline constexpr std::size_t kMaxNarrowBytes = 1023;
/// Characters of a number that are looked at.
inline constexpr std::size_t kMaxNumberCharacters = 50;

// A list.

/// Entries that a list is looked through for, whatever count it declares. A document with one beyond is refused when it
/// arrives.
inline constexpr int kMaxPolicyEntries = 100'000;

static_assert(kMaxPolicyKeys > 3 * std::size_t{kMaxPolicyEntries}, "every list of a document can be as long as it may");
static_assert(kMaxValueBytes > kMaxTextCharacters, "a text can be as long as it may");

} // namespace Sentrel::policy
