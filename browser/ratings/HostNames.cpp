#include "browser/ratings/HostNames.h"

#include "browser/decision/WebUrl.h"

#include <algorithm>
#include <vector>

namespace Sentrel::ratings {
namespace {

bool isPlain(char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_' || c == '.';
}

/// Whether a name is in its one form for certain, so that nobody has to be asked. Most names of a list are.
bool isInItsForm(std::string_view name) {
    const char last = name.empty() ? '.' : name.back();
    return last >= 'a' && last <= 'z' && name.front() != '.' && name.find("..") == std::string_view::npos &&
           name.find("xn--") == std::string_view::npos && name.find("0x") == std::string_view::npos &&
           std::all_of(name.begin(), name.end(), isPlain);
}

bool hasLongLabel(std::string_view name) {
    constexpr std::size_t longest = 63;
    while (name.size() > longest) {
        const std::size_t dot = name.find('.');
        if (std::min(dot, name.size()) > longest) {
            return true;
        }
        name.remove_prefix(dot + 1);
    }
    return false;
}

/// What would end the host, or be dropped, in an address.
bool hasOtherParts(std::string_view text) {
    const bool isBracketed = text.starts_with('[') && text.ends_with(']');
    return std::any_of(text.begin(), text.end(), [](char c) { return (c >= 0 && c <= ' ') || c == '\x7f'; }) ||
           text.find_first_of(isBracketed ? "/?#@\\" : "/?#@\\:[]") != std::string_view::npos;
}

} // namespace

std::optional<std::string> normalisedHost(std::string_view text) {
    constexpr std::size_t longest = 4 * kMaxHostBytes; // in UTF-8
    if (text.empty() || text.size() > longest || hasOtherParts(text)) {
        return std::nullopt;
    }
    std::string host(text);
    if (!isInItsForm(text)) {
        auto reading = browsing::parseWebUrl("http://" + host + "/");
        if (reading.index() != 0) {
            return std::nullopt;
        }
        host = std::move(std::get<0>(reading).host);
    }
    return host.size() > kMaxHostBytes || hasLongLabel(host) ? std::nullopt : std::optional(std::move(host));
}

bool isAddress(std::string_view host) {
    return host.starts_with('[') || (!host.empty() && host.back() >= '0' && host.back() <= '9' &&
                                     browsing::addressOf(std::string(host)).has_value());
}

std::string orderedKey(std::string_view host) {
    if (isAddress(host)) {
        return std::string(host);
    }
    std::string key;
    key.reserve(host.size());
    for (std::size_t dot = host.rfind('.'); dot != std::string_view::npos; dot = host.rfind('.')) {
        key.append(host.substr(dot + 1)).push_back(' ');
        host = host.substr(0, dot);
    }
    return key.append(host);
}

std::string hostOfKey(std::string_view key) {
    std::string host;
    host.reserve(key.size());
    for (std::size_t blank = key.rfind(' '); blank != std::string_view::npos; blank = key.rfind(' ')) {
        host.append(key.substr(blank + 1)).push_back('.');
        key = key.substr(0, blank);
    }
    return host.append(key);
}

} // namespace Sentrel::ratings
