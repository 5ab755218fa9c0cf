// Following the database.
//
// - A database that cannot be used, or one whose newest list is too old, is "not reachable": what is known of no site
//   must not look like a site of which nothing is known. What that leads to is a setting's, and by default nothing.
// - Where no list was ever imported nobody is there who could be out of reach. Where the file cannot be seen, nobody
//   knows whether one was.
// - A new file that cannot be used changes nothing: the old one stays mapped and in use.
#include "browser/ratings/RatingLists.h"

#include "base/PrintableText.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <fmt/format.h>
#include <sys/stat.h>
#include <utility>

namespace Sentrel::ratings {

RatingLists::RatingLists(std::string path) : m_path(std::move(path)), m_mark(markOfFile()) {
    open();
}

RatingLists::FileMark RatingLists::markOfFile() const {
    constexpr std::int64_t nanoseconds = 1'000'000'000;
    struct stat facts {};
    if (::lstat(m_path.c_str(), &facts) != 0) {
        FileMark none;
        none.error = errno == ENOENT ? 0 : errno;
        return none;
    }
    return {facts.st_dev, facts.st_ino, facts.st_size, facts.st_ctim.tv_sec * nanoseconds + facts.st_ctim.tv_nsec, 0};
}

void RatingLists::open() {
    m_fault.clear();
    if (m_mark == FileMark()) {
        m_database.reset();
    } else {
        try {
            m_database = std::make_unique<const RatingDatabase>(m_path);
        } catch (const std::exception& error) {
            m_fault = fmt::format("the rating database cannot be used: {}", text::printable(error.what()));
        }
    }
    m_because = whyUnreachable();
}

bool RatingLists::refresh() {
    const FileMark mark = markOfFile();
    if (mark == m_mark) {
        return std::exchange(m_because, whyUnreachable()) != m_because;
    }
    m_mark = mark;
    open();
    return true;
}

std::string RatingLists::whyUnreachable() const {
    if (m_database == nullptr) {
        return m_fault;
    }
    std::chrono::sys_seconds newest{};
    for (const ListFacts& list : m_database->lists()) {
        newest = std::max(newest, list.date);
    }
    const auto age = std::chrono::floor<std::chrono::days>(std::chrono::system_clock::now() - newest);
    return age <= kMaxListAge ? "" : fmt::format("the newest rating list is older than {} days", kMaxListAge.count());
}

SiteRating RatingLists::rate(const browsing::WebUrl& url) const {
    const SiteRating* const found = m_database == nullptr ? nullptr : m_database->find(url);
    SiteRating rating = found == nullptr ? SiteRating() : *found;
    rating.standing.isReachable = m_because.empty() && (found != nullptr || m_database == nullptr);
    return rating;
}

RatingStatus RatingLists::status() const {
    const bool isNobodyThere = m_database == nullptr && m_because.empty();
    return {m_because.empty(), isNobodyThere ? "no rating list was imported" : m_because,
            m_database == nullptr ? std::vector<ListFacts>() : m_database->lists()};
}

std::optional<RatingTable> RatingLists::table() const {
    return m_database == nullptr ? std::nullopt : std::optional(m_database->table());
}

} // namespace Sentrel::ratings
