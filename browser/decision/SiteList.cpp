// A page is looked up by its host, and by each name that its host is below; behind each stand the rules of that host,
// sorted by the beginning that they ask of a page. So a look-up costs what the page's own address costs, and not what
// the list has.
//
// What must stay so:
// - Which kind wins is precedence's alone. A longer or an exact entry does not beat a shorter one: whoever walks the
//   list in the daemon's order meets the winning kind first and stops there.
// - An action is any number: 0 allows, all others block.
#include "browser/decision/SiteList.h"

#include <algorithm>
#include <tuple>

namespace Sentrel::browsing {
namespace {

constexpr std::string_view kBlanks = " \t";
constexpr std::string_view kBelow = "*.";

std::string_view withoutBlanks(std::string_view text) {
    const std::size_t first = text.find_first_not_of(kBlanks);
    return first == std::string_view::npos ? std::string_view()
                                           : text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

/// An entry as an address that can be read, with its wildcard taken out.
struct PlainEntry {
    std::string address;
    bool coversNamesBelow = false;
    bool coversEveryHost = false;
};

PlainEntry plainEntry(std::string_view entry) {
    constexpr std::string_view mark = "://";
    PlainEntry plain{.address = std::string(hasScheme(entry) ? "" : "http://").append(entry)};
    const std::size_t host = plain.address.find(mark) + mark.size();
    const std::string_view rest = std::string_view(plain.address).substr(host);
    if (rest.starts_with(kBelow)) {
        plain.coversNamesBelow = true;
        plain.address.erase(host, kBelow.size());
    } else if (rest == "*" || rest.starts_with("*/") || rest.starts_with("*:")) {
        plain.coversEveryHost = true;
        plain.address.replace(host, 1, "every");
    }
    return plain;
}

/// Whether an address names its port; userinfo may have a colon too, so it is looked for behind it.
bool namesPort(std::string_view address) {
    std::string_view authority = address.substr(address.find("://") + 3);
    authority = authority.substr(0, authority.find_first_of("/?#\\"));
    authority.remove_prefix(authority.rfind('@') + 1);
    const std::size_t colon = authority.rfind(':');
    return colon != std::string_view::npos && colon + 1 < authority.size() &&
           authority.find(']', colon) == std::string_view::npos;
}

/// Keeps the earlier of two places.
void keepFirst(std::size_t& place, std::size_t other) {
    place = std::min(place, other); // none is the largest number
}

/// Hands each beginning of @p target that an entry may ask for to @p take, none longer than @p longest.
template <class Take>
void eachBeginning(std::string_view target, std::size_t longest, const Take& take) {
    const std::size_t path = pathLength(target);
    for (std::size_t at = 1; at <= std::min(target.size(), longest); ++at) {
        const bool isInPath = at <= path;
        const bool isAtEnd = at == target.size();
        const char next = isAtEnd ? '\0' : target[at];
        const bool isBorder = isAtEnd || at == path || (isInPath ? next == '/' : next == '&');
        if (isBorder || (isInPath && target[at - 1] == '/')) {
            take(target.substr(0, at));
        }
    }
}

} // namespace

std::variant<SitePattern, UrlFault> parseSitePattern(std::string_view text) {
    const std::string_view entry = withoutBlanks(text);
    const PlainEntry plain = plainEntry(entry);
    auto reading = parseWebUrl(plain.address);
    if (const UrlFault* const fault = std::get_if<UrlFault>(&reading)) {
        return *fault;
    }
    WebUrl& url = std::get<WebUrl>(reading);
    const bool isAddress = url.address || url.host.starts_with('[');
    const bool hasWildcard = url.host.find('*') != std::string::npos; // a host may have one, an entry is not about it
    if (hasWildcard || (plain.coversNamesBelow && isAddress)) {
        return UrlFault::BadHost;
    }
    return SitePattern{.scheme = hasScheme(entry) ? url.scheme : "",
                       .host = plain.coversEveryHost ? "" : url.host,
                       .coversNamesBelow = plain.coversNamesBelow || plain.coversEveryHost,
                       .port = namesPort(plain.address) ? url.port : std::uint16_t{0},
                       .target = std::move(url.target)};
}

SiteList::SiteList(const std::vector<settings::ListEntry>& entries, bool allowsFirst) : m_allowsFirst(allowsFirst) {
    m_rules.reserve(entries.size());
    for (std::size_t place = 0; place < entries.size(); ++place) {
        addRule(entries[place], place);
    }
    group();
}

void SiteList::addRule(const settings::ListEntry& entry, std::size_t place) {
    auto reading = parseSitePattern(entry.name);
    SitePattern* const pattern = std::get_if<SitePattern>(&reading);
    if (pattern == nullptr) {
        m_unreadable.push_back(place);
        return;
    }
    m_rules.push_back({(pattern->coversNamesBelow ? "." : "") + pattern->host, std::move(pattern->target),
                       static_cast<std::uint32_t>(place), pattern->port,
                       static_cast<std::uint8_t>(pattern->scheme.size()), entry.value == 0});
}

void SiteList::group() {
    std::sort(m_rules.begin(), m_rules.end(), [](const Rule& a, const Rule& b) {
        return std::tie(a.host, a.target, a.entry) < std::tie(b.host, b.target, b.entry);
    });
    m_groups.reserve(m_rules.size());
    for (std::size_t at = 0; at < m_rules.size(); ++at) {
        Group& group = m_groups.try_emplace(m_rules[at].host, Group{at, at, 0}).first->second;
        group.end = at + 1;
        group.longest = std::max(group.longest, m_rules[at].target.size());
    }
}

std::size_t SiteList::find(const WebUrl& url, std::size_t* overruled) const {
    Found found;
    searchHost(url.host, url, found);
    const std::string below = "." + url.host; // the name itself is among those that "*." covers
    for (std::size_t dot = 0; dot != std::string::npos; dot = below.find('.', dot + 1)) {
        searchHost(std::string_view(below).substr(dot), url, found);
    }
    searchHost(".", url, found);
    const std::size_t first = m_allowsFirst ? found.allow : found.block;
    const std::size_t second = m_allowsFirst ? found.block : found.allow;
    if (overruled != nullptr) {
        *overruled = first != kNone ? second : kNone;
    }
    return first != kNone ? first : second;
}

void SiteList::searchHost(std::string_view host, const WebUrl& url, Found& found) const {
    const auto group = m_groups.find(host);
    if (group == m_groups.end()) {
        return;
    }
    eachBeginning(url.target, group->second.longest,
                  [&](std::string_view beginning) { searchTarget(group->second, beginning, url, found); });
}

void SiteList::searchTarget(const Group& group, std::string_view beginning, const WebUrl& url, Found& found) const {
    const auto begin = m_rules.begin() + static_cast<std::ptrdiff_t>(group.first);
    const auto end = m_rules.begin() + static_cast<std::ptrdiff_t>(group.end);
    auto rule = std::lower_bound(begin, end, beginning,
                                 [](const Rule& each, std::string_view target) { return each.target < target; });
    for (; rule != end && rule->target == beginning; ++rule) {
        const bool fits = (rule->port == 0 || rule->port == url.port) &&
                          (rule->schemeBytes == 0 || rule->schemeBytes == url.scheme.size());
        if (fits) {
            keepFirst(rule->allows ? found.allow : found.block, rule->entry);
        }
    }
}

} // namespace Sentrel::browsing
