// The compiled lists, mapped from a file.
#pragma once

#include "browser/decision/WebUrl.h"
#include "browser/ratings/RatingHeads.h"
#include "browser/ratings/RatingProvider.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Sentrel::ratings {

/// The name of the record that says what the others mean. No host is called so.
inline constexpr std::string_view kHeadRecord{"\0head", 5};

/// The hash of a host, as RatedName has it. Threads: any.
std::uint64_t hashOfName(std::string_view name, const NameKey& key);

/// A file of its own for as long as this lives, whatever becomes of the one at the path.
/// Threads: any, it never changes. Owner: the holder.
class RatingDatabase {
public:
    /// Maps the file. It has to be a regular one of root's or this user's that nobody else may write.
    /// @throws UnusableList when it is no database, and std::system_error when the system refuses it.
    explicit RatingDatabase(const std::string& path);
    /// The same of a file that is open; it may be closed afterwards.
    explicit RatingDatabase(int fd);
    ~RatingDatabase();
    RatingDatabase(const RatingDatabase&) = delete;
    RatingDatabase& operator=(const RatingDatabase&) = delete;

    const std::vector<ListFacts>& lists() const { return m_head.lists; }

    /// What the lists say together of the page's site; none when the file is damaged there.
    const SiteRating* find(const browsing::WebUrl& url) const;

    /// The places of the lists that say it, as lists() has them.
    const ListPlaces& listsOf(const SiteRating& found) const;

    RatingTable table() const;

private:
    struct Map;

    std::optional<std::size_t> classOf(const browsing::WebUrl& url) const;
    void readHead();

    const std::unique_ptr<Map> m_map;
    DatabaseHead m_head;
    std::vector<SiteRating> m_classes;
};

} // namespace Sentrel::ratings
