#include "browser/ratings/EntryList.h"

#include "browser/ratings/HostNames.h"

#include <algorithm>
#include <limits>

namespace Sentrel::ratings {
namespace {

constexpr std::size_t kHeadBytes = 2;
constexpr Marks kIn = kItself | kBelow;

/// Compares as the key's first bytes do.
std::uint64_t beginningOf(std::string_view key) {
    constexpr unsigned bits = 8;
    std::uint64_t number = 0;
    for (std::size_t at = 0; at < sizeof number; ++at) {
        number = number << bits | (at < key.size() ? static_cast<unsigned char>(key[at]) : 0U);
    }
    return number;
}

} // namespace

void EntryList::add(std::string_view host, Marks marks) {
    const std::string key = orderedKey(host);
    if (m_places.size() == kMaxHosts ||
        m_bytes.size() > std::numeric_limits<std::uint32_t>::max() - kHeadBytes - kMaxHostBytes) {
        throw UnusableList("it names more than 20 million hosts");
    }
    m_places.push_back({beginningOf(key), static_cast<std::uint32_t>(m_bytes.size())});
    m_bytes.push_back(static_cast<char>(marks));
    m_bytes.push_back(static_cast<char>(key.size()));
    m_bytes.insert(m_bytes.end(), key.begin(), key.end());
}

std::string_view EntryList::keyAt(const Place& place) const {
    const char* const head = m_bytes.data() + place.at;
    return {head + kHeadBytes, static_cast<unsigned char>(head[1])};
}

void EntryList::mergeSame() {
    std::size_t kept = 0;
    for (std::size_t next = 1; next < m_places.size(); ++next) {
        char& marks = m_bytes[m_places[kept].at];
        if (keyAt(m_places[next]) == keyAt(m_places[kept])) {
            marks = static_cast<char>(marks | m_bytes[m_places[next].at]);
        } else {
            m_places[++kept] = m_places[next];
        }
    }
    m_places.resize(std::min(kept + 1, m_places.size()));
}

void EntryList::arrange(bool exceptionsBeatEntries) {
    std::sort(m_places.begin(), m_places.end(), [this](const Place& left, const Place& right) {
        return left.beginning == right.beginning ? keyAt(left) < keyAt(right) : left.beginning < right.beginning;
    });
    mergeSame();
    const Place* exception = nullptr;
    for (const Place& place : m_places) {
        auto marks = static_cast<Marks>(m_bytes[place.at]);
        const bool isOut = exception != nullptr && isBelow(keyAt(place), keyAt(*exception));
        marks &= static_cast<Marks>(isOut ? ~kIn : ~((marks & (kNotItself | kNotBelow)) >> 2U));
        m_bytes[place.at] = static_cast<char>(marks);
        exception = exceptionsBeatEntries && !isOut && (marks & kNotBelow) != 0 ? &place : exception;
    }
    std::erase_if(m_places, [this](const Place& place) { return m_bytes[place.at] == 0; });
}

std::uint64_t EntryList::count() const {
    return static_cast<std::uint64_t>(std::count_if(m_places.begin(), m_places.end(), [this](const Place& place) {
        return (static_cast<Marks>(m_bytes[place.at]) & kIn) != 0;
    }));
}

void EntryList::forEach(const std::function<void(std::string_view, Marks)>& visit) const {
    for (const Place& place : m_places) {
        visit(keyAt(place), static_cast<Marks>(m_bytes[place.at]));
    }
}

} // namespace Sentrel::ratings
