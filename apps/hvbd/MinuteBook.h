// How full each minute of the log store is.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <utility>

namespace HVB::hub {

/// The bytes of the stored records, minute by minute, so that the fullest one is at hand. Whoever floods the log fills
/// the minutes of the flood; those of everybody else stay small.
/// Threads: one at a time. Owner: the log store's connection.
class MinuteBook {
public:
    static constexpr std::int64_t kMicroseconds = 60'000'000;

    /// The minute in which a record was stored. @param storedAt microseconds since the epoch.
    static std::int64_t minuteOf(std::int64_t storedAt) { return storedAt / kMicroseconds; }

    /// Records were stored in a minute. @param ofKnownKind how many of them others may be like.
    void add(std::int64_t minute, std::uint64_t bytes, std::uint64_t records, std::uint64_t ofKnownKind);
    /// Records of a minute were removed. Requires that they were added.
    void remove(std::int64_t minute, std::uint64_t bytes, std::uint64_t records);

    /// The records of like kind in a minute were looked for and merged.
    void noteMerged(std::int64_t minute);
    /// Whether enough came into a minute since then to make a look worth its time.
    bool isMergeWorthwhile(std::int64_t minute) const;

    std::uint64_t totalBytes() const { return m_totalBytes; }
    bool isEmpty() const { return m_minutes.empty(); }
    /// The minute with the most bytes, the earliest of several. Requires that there is one.
    std::int64_t fullest() const { return -m_bySize.rbegin()->second; }

private:
    struct Minute {
        std::uint64_t bytes = 0;
        std::uint64_t records = 0;
        std::uint64_t unmerged = 0; ///< of known kind, since the last merge
    };

    void resize(std::int64_t minute, Minute& entry, std::uint64_t bytes);

    // Plain, single access.
    std::map<std::int64_t, Minute> m_minutes;
    std::set<std::pair<std::uint64_t, std::int64_t>> m_bySize; ///< bytes and the negative minute
    std::uint64_t m_totalBytes = 0;
};

} // namespace HVB::hub
