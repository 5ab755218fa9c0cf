// The allow/block list as lines of text, and changes to it.
#pragma once

#include "apps/sentrelctl/terminal/Json.h"
#include "apps/sentrelctl/terminal/Output.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace Sentrel::ctl {

/// An entry of the allow/block list. The number is kept as it is: 0 allows, any other blocks.
struct ListEntry {
    std::string url;
    int action;

    bool operator==(const ListEntry&) const = default;
    bool operator<(const ListEntry& other) const { return std::tie(url, action) < std::tie(other.url, other.action); }
};

inline constexpr int kAllow = 0;
inline constexpr int kBlock = 1;

/// In the order in which the daemon looks at it.
using UrlList = std::vector<ListEntry>;

/// The longest URL or category name, in bytes: as long as one that the management policy can bring.
inline constexpr std::size_t kMaxNameBytes = 1023;

inline const char* actionWord(int action) {
    return action == kAllow ? "allow" : "block";
}

/// Why @p url cannot be an entry: empty, too long, no UTF-8, or with white space or control characters in it.
/// None when it can.
std::optional<std::string> faultOfUrl(std::string_view url);

/// As faultOfUrl for the name of a category, in which there may be blanks.
std::optional<std::string> faultOfCategory(std::string_view name);

/// A line that is no entry. Lines count from 1.
struct BadLine {
    std::size_t number;
    std::string why;
};

/// What the lines of a text came to.
struct ParsedList {
    UrlList entries;
    std::vector<BadLine> bad;
};

/// Reads a URL a line, each with @p action unless "allow" or "block" and a blank stand in front of it. Blank lines and
/// those that begin with # are skipped; blanks at both ends and a carriage return at the end do not count.
ParsedList parseList(std::string_view text, int action);

/// The line that parseList reads as @p entry, without its newline.
std::string listLine(const ListEntry& entry);

/// Gives each of @p changes its place in @p list: the entry with that URL takes the new action and stays where it is, a
/// new one goes to the end. Of two changes to one URL the later counts.
void applyChanges(UrlList& list, const UrlList& changes);

/// Takes the entries with these URLs out. @return the URLs that are not in the list.
std::vector<std::string> removeFrom(UrlList& list, const std::vector<std::string>& urls);

/// The entries of @p wanted that @p list lacks or has with another kind of action.
UrlList missingFrom(const UrlList& list, const UrlList& wanted);

/// "3 entries: 1 allow, 2 block".
std::string countText(const UrlList& list);

/// "entries", "allow" and "block", each a number.
Json countJson(const UrlList& list);

Json entryJson(const ListEntry& entry);

} // namespace Sentrel::ctl
