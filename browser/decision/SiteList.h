// The list of sites that are allowed or blocked, made quick to search.
#pragma once

#include "browser/decision/WebUrl.h"
#include "platform/settings/SettingsSnapshot.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Sentrel::browsing {

/// What an entry of the list says, once it is read. What it leaves out holds for all.
/// Threads: a plain value. Owner: the holder.
struct SitePattern {
    std::string scheme;            ///< empty: both
    std::string host;              ///< as in WebUrl; empty with coversNamesBelow: every host
    bool coversNamesBelow = false; ///< the host itself and the names below it
    std::uint16_t port = 0;        ///< 0: every one
    /// What the page's target must begin with, up to the border of a part: in a path in front of a slash or the query,
    /// in a query in front of an ampersand. "/": every page.
    std::string target;
};

/// Reads an entry: a whole address, or one without scheme, port or path; the host may be "*" or begin with "*.".
std::variant<SitePattern, UrlFault> parseSitePattern(std::string_view text);

/// An index of the entries, built once. Of the entries that fit a page one decides: one of the kind that takes
/// precedence, and of those the first in the order of the entries.
/// Threads: any, it never changes. Owner: the holder; it has copies of what it needs.
class SiteList {
public:
    static constexpr std::size_t kNone = static_cast<std::size_t>(-1);

    SiteList(const std::vector<settings::ListEntry>& entries, bool allowsFirst);

    /// The place of the entry that decides, counted from 0; kNone when no entry fits.
    /// @param overruled takes the place of the first that fits and was overruled by precedence, or kNone.
    std::size_t find(const WebUrl& url, std::size_t* overruled = nullptr) const;

    /// Places of the entries that no page can fit, because they are no address.
    const std::vector<std::size_t>& unreadable() const { return m_unreadable; }

private:
    struct Rule {
        std::string host; ///< with a dot in front when it covers the names below; a dot alone covers everything
        std::string target;
        std::uint32_t entry;
        std::uint16_t port;
        std::uint8_t schemeBytes; ///< of the scheme's name; 0: both
        bool allows;
    };
    /// The rules of a host, sorted by target: m_rules[first] up to m_rules[end].
    struct Group {
        std::size_t first;
        std::size_t end;
        std::size_t longest; ///< bytes of the longest target
    };
    struct Found {
        std::size_t allow = kNone;
        std::size_t block = kNone;
    };

    void addRule(const settings::ListEntry& entry, std::size_t place);
    void group();
    void searchHost(std::string_view host, const WebUrl& url, Found& found) const;
    void searchTarget(const Group& group, std::string_view beginning, const WebUrl& url, Found& found) const;

    bool m_allowsFirst;
    std::vector<Rule> m_rules;
    std::unordered_map<std::string_view, Group> m_groups; ///< the keys lie in m_rules
    std::vector<std::size_t> m_unreadable;
};

} // namespace Sentrel::browsing
