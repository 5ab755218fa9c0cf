// Feeds a page's address and a list of sites, a line each, to the decision. An address is read from its own form as the
// same again, and the index finds what a walk through the list finds.
#include "browser/decision/SiteList.h"
#include "fuzz/Require.h"

#include <cstdint>
#include <string_view>

namespace {

using namespace Sentrel::browsing;
using fuzz::require;

/// Whether a page's target begins as an entry's, up to the border of a part.
bool covers(std::string_view beginning, std::string_view target) {
    const bool isInQuery = beginning.find('?') != std::string_view::npos;
    const bool isBorder = beginning.size() == target.size() || (!isInQuery && beginning.ends_with('/'));
    if (!target.starts_with(beginning) || isBorder) {
        return target.starts_with(beginning);
    }
    const char next = target[beginning.size()];
    return isInQuery ? next == '&' : next == '/' || next == '?';
}

bool names(const SitePattern& pattern, const WebUrl& url) {
    const bool isBelow =
        pattern.coversNamesBelow && (pattern.host.empty() || ("." + url.host).ends_with("." + pattern.host));
    return (isBelow || pattern.host == url.host) && (pattern.scheme.empty() || pattern.scheme == url.scheme) &&
           (pattern.port == 0 || pattern.port == url.port) && covers(pattern.target, url.target);
}

std::size_t walk(const std::vector<Sentrel::settings::ListEntry>& entries, const WebUrl& url) {
    for (const bool blocks : {true, false}) {
        for (std::size_t place = 0; place < entries.size(); ++place) {
            const auto pattern = parseSitePattern(entries[place].name);
            if ((entries[place].value != 0) == blocks && pattern.index() == 0 && names(std::get<0>(pattern), url)) {
                return place;
            }
        }
    }
    return SiteList::kNone;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    const std::string_view address = text.substr(0, text.find('\n'));
    std::vector<Sentrel::settings::ListEntry> entries;
    while (text.find('\n') != std::string_view::npos) {
        text.remove_prefix(text.find('\n') + 1);
        entries.push_back(
            {std::string(text.substr(0, text.find('\n'))), static_cast<std::int32_t>(entries.size() % 2)});
    }
    const auto reading = parseWebUrl(address);
    if (const WebUrl* const url = std::get_if<WebUrl>(&reading)) {
        require(parseWebUrl(url->text()) == reading && url->target.starts_with('/'));
        require(SiteList(entries, false).find(*url) == walk(entries, *url));
    }
    return 0;
}
