// Who rates sites. Everything that decides on pages asks this interface; the lists of this machine are one who answers,
// and a service that knows reputations can stand beside them.
#pragma once

#include "browser/decision/PageDecision.h"
#include "browser/decision/WebUrl.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Sentrel::ratings {

/// What is known of a site, and from whom. Threads: a plain value. Owner: the holder.
struct SiteRating {
    browsing::SiteStanding standing{};
    std::string ratedBy; ///< name of the list that gave the rating; empty when none names the site
};

/// One list. Threads: a plain value. Owner: the holder.
struct ListFacts {
    std::string name;
    std::string source;                        ///< where it came from, as was given; may be empty
    std::string licence;                       ///< as was given; may be empty
    std::chrono::sys_seconds date{};           ///< when its file was last changed
    std::uint64_t count = 0;                   ///< hosts that it names
    std::int32_t rating = browsing::kNoRating; ///< of each of them
    std::vector<std::string> categories{};     ///< that each of them is in
    bool isPhishing = false;
};

/// Threads: a plain value. Owner: the holder.
struct RatingStatus {
    bool isReachable = false;
    std::string because; ///< why it is not, or why nobody rates sites here, as a sentence without its end; else empty
    std::vector<ListFacts> lists{};
};

/// Which key names are hashed with: SipHash-2-4 with 64 bits of result, over the bytes of the host.
using NameKey = std::array<std::uint8_t, 16>;

/// A name that something is known of, for who looks up in memory. Classes are places in RatingTable::classes.
struct RatedName {
    std::uint64_t hash = 0;
    std::uint16_t itself = 0; ///< class of the name
    std::uint16_t below = 0;  ///< class of every name below it that has no place of its own
};

/// All that a provider knows. A host is looked up by its own name, then by each parent; an address only by itself. The
/// first name that is there decides: what its parents say is in its classes already.
/// Threads: a plain value. Owner: the holder.
struct RatingTable {
    NameKey key{};
    std::vector<SiteRating> classes; ///< the first one is that of a site of which nothing is known
    std::vector<RatedName> names;    ///< by their hash, ascending; each once
};

/// Threads: one at a time; each thread may have a provider of its own. Owner: the holder. Nothing throws but for want
/// of memory: what cannot be had is told by status().
class RatingProvider {
public:
    RatingProvider() = default;
    RatingProvider(const RatingProvider&) = delete;
    RatingProvider& operator=(const RatingProvider&) = delete;
    virtual ~RatingProvider() = default;

    /// Looks whether there is something newer, and takes it. Cheap when there is not, so it may be called every second.
    /// @return whether status(), or what rate() gives, may differ from before.
    virtual bool refresh() = 0;

    /// What is known of the page's site. Its isReachable is the status's.
    virtual SiteRating rate(const browsing::WebUrl& url) const = 0;

    virtual RatingStatus status() const = 0;

    /// Everything, for who cannot ask. None: what this provider knows cannot be handed out, or there is nothing.
    virtual std::optional<RatingTable> table() const = 0;
};

} // namespace Sentrel::ratings
