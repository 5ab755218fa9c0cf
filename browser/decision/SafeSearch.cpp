#include "browser/decision/SafeSearch.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>

namespace Sentrel::browsing {
namespace {

/// A search engine. Its hosts are the name, with or without "www." in front, and with hasCountries any country's.
struct SearchEngine {
    std::string_view host;
    bool hasCountries; ///< "google" in "google.co.uk"; else the host is whole
    std::string_view path;
    std::string_view words; ///< the parameter with the words that are searched for
    std::string_view parameter;
    std::string_view value;
};

constexpr std::array kEngines{
    SearchEngine{"google", true, "/search", "q", "safe", "active"},
    SearchEngine{"bing.com", false, "/search", "q", "adlt", "strict"},
    SearchEngine{"bing.com", false, "/images/search", "q", "adlt", "strict"},
    SearchEngine{"bing.com", false, "/videos/search", "q", "adlt", "strict"},
    SearchEngine{"duckduckgo.com", false, "/", "q", "kp", "1"},
    SearchEngine{"search.yahoo.com", false, "/search", "p", "vm", "r"},
};

/// Whether what stands behind an engine's name is a country's ending, such as ".de" or ".co.uk".
bool isCountryEnding(std::string_view ending) {
    constexpr std::ptrdiff_t mostLabels = 2;
    constexpr std::size_t mostBytes = 7; // ".com.au"
    return ending.starts_with('.') && ending.size() > 2 && ending.size() <= mostBytes &&
           std::count(ending.begin(), ending.end(), '.') <= mostLabels;
}

bool isHostOf(const SearchEngine& engine, std::string_view host) {
    constexpr std::string_view www = "www.";
    if (host.starts_with(www)) {
        host.remove_prefix(www.size());
    }
    if (!engine.hasCountries) {
        return host == engine.host;
    }
    return host.starts_with(engine.host) && isCountryEnding(host.substr(engine.host.size()));
}

std::string_view nameIn(std::string_view parameter) {
    return parameter.substr(0, parameter.find('='));
}

/// What a query has, beside the parameter of an engine.
struct QueryParts {
    bool hasWords = false;
    bool isSafe = false; ///< the engine's parameter is there, once and as it should be
    std::string others;  ///< everything but the engine's parameter
};

QueryParts partsOf(std::string_view query, const SearchEngine& engine) {
    QueryParts parts;
    std::size_t settings = 0;
    const std::string wanted = fmt::format("{}={}", engine.parameter, engine.value);
    for (;;) {
        const std::string_view parameter = query.substr(0, query.find('&'));
        if (nameIn(parameter) == engine.parameter) {
            ++settings;
            parts.isSafe = parameter == wanted;
        } else {
            parts.hasWords = parts.hasWords || nameIn(parameter) == engine.words;
            parts.others.append(parameter).append("&");
        }
        if (parameter.size() == query.size()) {
            break;
        }
        query.remove_prefix(parameter.size() + 1);
    }
    parts.isSafe = parts.isSafe && settings == 1;
    return parts;
}

} // namespace

std::optional<std::string> withSafeSearch(const WebUrl& url) {
    const std::size_t path = pathLength(url.target);
    if (path == url.target.size()) {
        return std::nullopt; // no words
    }
    const auto isItsSearch = [&](const SearchEngine& engine) {
        return url.target.compare(0, path, engine.path) == 0 && isHostOf(engine, url.host);
    };
    const auto* const engine = std::find_if(kEngines.begin(), kEngines.end(), isItsSearch);
    if (engine == kEngines.end()) {
        return std::nullopt;
    }
    const QueryParts parts = partsOf(std::string_view(url.target).substr(path + 1), *engine);
    if (!parts.hasWords || parts.isSafe) {
        return std::nullopt;
    }
    WebUrl safe = url;
    safe.target = fmt::format("{}?{}{}={}", engine->path, parts.others, engine->parameter, engine->value);
    return safe.text();
}

} // namespace Sentrel::browsing
