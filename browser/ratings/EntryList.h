// The entries of one list while it is imported.
#pragma once

#include "browser/ratings/ListFormats.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace Sentrel::ratings {

inline constexpr std::size_t kMaxHosts = 20'000'000; // of one list; four times the longest that are passed around

/// A list, or a file of ours, that cannot be used. Its words are printable, and are a sentence without its end.
class UnusableList : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Takes hosts in any order, and gives them in the order of their keys, each once.
/// Threads: one. Owner: the operation.
class EntryList {
public:
    /// @throws UnusableList when there are more than kMaxHosts.
    void add(std::string_view host, Marks marks);

    /// Puts them in order. What is taken out is out, whatever else the list says of the name.
    /// @param exceptionsBeatEntries names below one that is taken out with those below it are out too.
    void arrange(bool exceptionsBeatEntries);

    /// How many hosts the list names. Requires that they are in order.
    std::uint64_t count() const;

    /// Requires that they are in order.
    void forEach(const std::function<void(std::string_view key, Marks marks)>& visit) const;

private:
    /// A key begins with its marks and its length, one byte each.
    struct Place {
        std::uint64_t beginning; ///< of the key, for a comparison that looks at nothing else
        std::uint32_t at;
    };

    std::string_view keyAt(const Place& place) const;
    void mergeSame();

    std::vector<char> m_bytes;
    std::vector<Place> m_places;
};

} // namespace Sentrel::ratings
