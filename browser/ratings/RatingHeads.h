// What stands in front of a kept list and of the database, as texts of JSON.
#pragma once

#include "browser/ratings/EntryList.h"
#include "browser/ratings/ListFormats.h"
#include "browser/ratings/RatingProvider.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Sentrel::ratings {

inline constexpr std::size_t kMaxLists = 64; // so many bits has a set of them

/// The last date that a list can have, in the year 2242; the first one is that of the epoch. A clock that counts
/// nanoseconds goes not much further.
inline constexpr std::chrono::sys_seconds kLatestDate{std::chrono::seconds(std::int64_t{1} << 33U)};

/// A list as it is kept. Threads: a plain value. Owner: the holder.
struct ListHead {
    ListFacts facts{};
    ListFormat format = ListFormat::Domains;
    std::string file; ///< where it came from, absolute; empty when that was no file
};

/// Lists that rate a site together, as places in the database's lists, ascending.
using ListPlaces = std::vector<std::size_t>;

/// Threads: a plain value. Owner: the holder.
struct DatabaseHead {
    NameKey key{};
    std::vector<ListFacts> lists;    ///< by their names
    std::vector<ListPlaces> classes; ///< the first one is empty
};

/// On one line, without its end.
std::string textOf(const ListHead& head);
std::string textOf(const DatabaseHead& head);

/// @throws UnusableList when @p text is none.
ListHead readListHead(std::string_view text);
DatabaseHead readDatabaseHead(std::string_view text);

/// What several lists say of a site together: the highest rating, named after the first list that has it; all
/// categories; phishing when one of them says so.
SiteRating ratingBy(const std::vector<ListFacts>& lists, const ListPlaces& places);

} // namespace Sentrel::ratings
