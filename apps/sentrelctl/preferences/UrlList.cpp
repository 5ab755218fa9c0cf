// The allow/block list as lines of text, and changes to it, without the daemon.
//
// A list is a sequence whose order is kept: a changed entry stays in its place, and a new one goes to the end. Lists
// have thousands of entries, so entries are found by hashing and not by searching.
//
// What must stay so:
// - What an export writes, an import reads as the same entries. faultOfUrl() decides for both what can be a line.
// - An action is any number: 0 allows, all others block. The number is kept as it came; two actions are equal when both
//   allow or both block.
// - "allow" alone on a line is an action whose URL is missing, and not a URL.
// - Nothing is corrected. A line that is no entry is reported with its number, and the caller decides.
#include "apps/sentrelctl/preferences/UrlList.h"

#include "base/PrintableText.h"

#include <algorithm>
#include <fmt/format.h>
#include <unordered_map>
#include <unordered_set>

namespace Sentrel::ctl {
namespace {

constexpr std::string_view kBlanks = " \t";
constexpr std::string_view kWhiteSpace = " \t\v\f\r\n";

std::string_view trimmed(std::string_view text, std::string_view characters) {
    const std::size_t first = text.find_first_not_of(characters);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(characters) - first + 1);
}

bool isControl(char c) {
    constexpr char firstPrintable = ' ';
    constexpr char del = 0x7F;
    return (c >= 0 && c < firstPrintable) || c == del;
}

std::optional<std::string> faultOfName(std::string_view name) {
    if (name.empty()) {
        return "it is empty";
    }
    if (name.size() > kMaxNameBytes) {
        return fmt::format("it has {} bytes, at most {}", name.size(), kMaxNameBytes);
    }
    if (std::any_of(name.begin(), name.end(), isControl)) {
        return "it has a control character in it";
    }
    if (text::validUtf8(name) != name) {
        return "it is not UTF-8";
    }
    return std::nullopt;
}

/// The action that stands in front of the URL, and what is behind it.
int takeAction(std::string_view& line, int otherwise) {
    for (const int action : {kAllow, kBlock}) {
        const std::string_view word = actionWord(action);
        // A word alone is an action whose URL is missing.
        if (line.starts_with(word) &&
            (line.size() == word.size() || kBlanks.find(line[word.size()]) != std::string::npos)) {
            line = trimmed(line.substr(word.size()), kBlanks);
            return action;
        }
    }
    return otherwise;
}

std::string_view takeLine(std::string_view& text) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (line.ends_with('\r')) {
        line.remove_suffix(1);
    }
    return trimmed(line, kBlanks);
}

} // namespace

std::optional<std::string> faultOfUrl(std::string_view url) {
    // White space comes before control characters, although some of it is that too: it is the usual mistake.
    if (url.find_first_of(kWhiteSpace) != std::string_view::npos) {
        return "it has white space in it";
    }
    return faultOfName(url);
}

std::optional<std::string> faultOfCategory(std::string_view name) {
    return faultOfName(name);
}

ParsedList parseList(std::string_view text, int action) {
    ParsedList parsed;
    for (std::size_t number = 1; !text.empty(); ++number) {
        std::string_view line = takeLine(text);
        if (line.empty() || line.starts_with('#')) {
            continue;
        }
        const int actionOfLine = takeAction(line, action);
        if (std::optional<std::string> fault = faultOfUrl(line)) {
            parsed.bad.push_back({number, *std::move(fault)});
        } else {
            parsed.entries.push_back({std::string(line), actionOfLine});
        }
    }
    return parsed;
}

std::string listLine(const ListEntry& entry) {
    return fmt::format("{} {}", actionWord(entry.action), entry.url);
}

void applyChanges(UrlList& list, const UrlList& changes) {
    std::unordered_map<std::string, std::size_t> places;
    for (std::size_t i = 0; i < list.size(); ++i) {
        places.emplace(list[i].url, i);
    }
    for (const ListEntry& change : changes) {
        const auto [place, isNew] = places.emplace(change.url, list.size());
        if (isNew) {
            list.push_back(change);
        } else {
            list[place->second].action = change.action;
        }
    }
}

std::vector<std::string> removeFrom(UrlList& list, const std::vector<std::string>& urls) {
    std::unordered_set<std::string> unwanted(urls.begin(), urls.end());
    std::unordered_set<std::string> absent = unwanted;
    for (const ListEntry& entry : list) {
        absent.erase(entry.url);
    }
    std::erase_if(list, [&unwanted](const ListEntry& entry) { return unwanted.contains(entry.url); });
    std::vector<std::string> result;
    for (const std::string& url : urls) {
        if (absent.erase(url) > 0) {
            result.push_back(url);
        }
    }
    return result;
}

UrlList missingFrom(const UrlList& list, const UrlList& wanted) {
    std::unordered_map<std::string, int> actions;
    for (const ListEntry& entry : list) {
        actions[entry.url] = entry.action;
    }
    UrlList missing;
    for (const ListEntry& entry : wanted) {
        const auto found = actions.find(entry.url);
        if (found == actions.end() || (found->second == kAllow) != (entry.action == kAllow)) {
            missing.push_back(entry);
        }
    }
    return missing;
}

std::string countText(const UrlList& list) {
    const auto allowed = std::count_if(list.begin(), list.end(), [](const ListEntry& e) { return e.action == kAllow; });
    return fmt::format("{} {}: {} allow, {} block", list.size(), list.size() == 1 ? "entry" : "entries", allowed,
                       list.size() - static_cast<std::size_t>(allowed));
}

Json countJson(const UrlList& list) {
    const auto allowed = std::count_if(list.begin(), list.end(), [](const ListEntry& e) { return e.action == kAllow; });
    return Json{
        {"entries", list.size()}, {"allow", allowed}, {"block", list.size() - static_cast<std::size_t>(allowed)}};
}

Json entryJson(const ListEntry& entry) {
    return Json{{"url", text::validUtf8(entry.url)}, {"action", actionWord(entry.action)}, {"code", entry.action}};
}

} // namespace Sentrel::ctl
