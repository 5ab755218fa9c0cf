// The lists of this machine, as who rates sites.
#pragma once

#include "browser/ratings/RatingDatabase.h"
#include "browser/ratings/RatingProvider.h"

#include <chrono>
#include <ctime>
#include <memory>
#include <string>

namespace Sentrel::ratings {

/// How old the newest list may be. Behind that the lists are taken for abandoned.
inline constexpr std::chrono::days kMaxListAge{30};

/// Asks the database at a path, and follows it when it is replaced.
/// Threads and owner: as its base.
class RatingLists : public RatingProvider {
public:
    /// Looks for the database at once; there need not be one.
    explicit RatingLists(std::string path);

    bool refresh() override;
    SiteRating rate(const browsing::WebUrl& url) const override;
    RatingStatus status() const override;
    std::optional<RatingTable> table() const override;

    /// The database that is in use; null when there is none.
    const RatingDatabase* database() const { return m_database.get(); }

private:
    /// What tells one file at the path from another.
    struct FileMark {
        std::uint64_t device = 0;
        std::uint64_t number = 0;
        std::int64_t size = -1;
        std::int64_t changed = 0; // nanoseconds
        int error = 0;            // why it cannot be seen; 0: it can, or is not there

        bool operator==(const FileMark&) const = default;
    };

    FileMark markOfFile() const;
    std::string whyUnreachable() const;
    void open();

    const std::string m_path;
    FileMark m_mark;
    std::unique_ptr<const RatingDatabase> m_database;
    std::string m_fault; ///< why what is at the path cannot be used
    std::string m_because;
};

} // namespace Sentrel::ratings
