// What of a policy's lists nobody can put into force.
#pragma once

#include "policy/PolicyValues.h"

#include <cstddef>
#include <string>
#include <vector>

namespace Sentrel::policy {

/// Why an entry gets no row.
enum class LeftOutReason {
    Missing,     ///< the count says that it is there
    TooLong,     ///< than kMaxNarrowBytes
    Empty,       ///< but for blanks
    Version6,    ///< a range of that version
    BeyondCount, ///< it is there, and nobody looks for it
};

/// An entry, by the name of its key.
struct LeftOutEntry {
    std::string key;
    LeftOutReason reason;
};

/// How many entries there are of that kind, and the first of them.
struct LeftOut {
    std::size_t count = 0;
    std::vector<LeftOutEntry> first; ///< at most kMaxLeftOutTold
};
inline constexpr std::size_t kMaxLeftOutTold = 20;

/// The entries of the lists of ranges and of sites that a policy has, or counts, and that are not among the rows that
/// it stores. One that another repeats is not left out. None when the policy is not to be enforced.
LeftOut leftOutOf(const PolicySource& source);

} // namespace Sentrel::policy
