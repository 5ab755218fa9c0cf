#include "apps/hvbd/MinuteBook.h"

namespace HVB::hub {

void MinuteBook::resize(std::int64_t minute, Minute& entry, std::uint64_t bytes) {
    m_bySize.erase({entry.bytes, -minute});
    m_totalBytes += bytes - entry.bytes;
    entry.bytes = bytes;
    m_bySize.insert({bytes, -minute});
}

void MinuteBook::add(std::int64_t minute, std::uint64_t bytes, std::uint64_t records, std::uint64_t ofKnownKind) {
    Minute& entry = m_minutes[minute];
    resize(minute, entry, entry.bytes + bytes);
    entry.records += records;
    entry.unmerged += ofKnownKind;
}

void MinuteBook::remove(std::int64_t minute, std::uint64_t bytes, std::uint64_t records) {
    Minute& entry = m_minutes.at(minute);
    resize(minute, entry, entry.bytes - bytes);
    entry.records -= records;
    if (entry.records == 0) {
        m_bySize.erase({entry.bytes, -minute});
        m_totalBytes -= entry.bytes;
        m_minutes.erase(minute);
    }
}

void MinuteBook::noteMerged(std::int64_t minute) {
    if (const auto found = m_minutes.find(minute); found != m_minutes.end()) {
        found->second.unmerged = 0;
    }
}

bool MinuteBook::isMergeWorthwhile(std::int64_t minute) const {
    // A look goes over all records of the minute: one look for so many new ones keeps its share of each small.
    constexpr std::uint64_t recordsOfOneNew = 8;
    const auto found = m_minutes.find(minute);
    return found != m_minutes.end() && found->second.unmerged > 0 &&
           found->second.unmerged * recordsOfOneNew >= found->second.records;
}

} // namespace HVB::hub
