// What stands in front of a kept list and of the database, as texts of JSON.
#pragma once

#include "browser/ratings/EntryList.h"
#include "browser/ratings/ListFormats.h"
#include "browser/ratings/RatingProvider.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Sentrel::ratings {

inline constexpr std::size_t kMaxLists = 64; // so many bits has a set of them

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
