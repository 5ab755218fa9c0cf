#include "policy/PolicyLists.h"

#include "policy/PolicyLimits.h"

#include <algorithm>

namespace Sentrel::policy {
namespace {

constexpr wchar_t kSeparator = L',';

/// As the preference controller trims what a policy gives it.
std::string trimmed(const std::string& text) {
    constexpr const char* blanks = " \t";
    const std::size_t first = text.find_first_not_of(blanks);
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

/// Without the code in which the text was cut: half a code may be another category's.
std::wstring wholeCodes(const PolicyText& listed) {
    return listed.isCut() && listed.cutOff != kSeparator ? listed.text.substr(0, listed.text.rfind(kSeparator) + 1)
                                                         : listed.text;
}

int digitOf(wchar_t character) {
    return character >= L'0' && character <= L'9' ? static_cast<int>(character - L'0') : 0;
}

} // namespace

int boundedCount(int declared) {
    return std::clamp(declared, 0, kMaxPolicyEntries);
}

TextEntries readTexts(const PolicySource& source, const PolicyKey& key, int declared) {
    TextEntries entries;
    const int count = boundedCount(declared);
    for (int index = 0; index < count; ++index) {
        if (auto value = source.text(key, index)) {
            auto narrow = narrowText(value->text);
            entries.found.push_back({index, std::move(value->text), std::move(narrow)});
        } else {
            entries.missing.push_back(index);
        }
    }
    return entries;
}

NumberEntries readNumbers(const PolicySource& source, const PolicyKey& key, int declared) {
    NumberEntries entries;
    const int count = boundedCount(declared);
    for (int index = 0; index < count; ++index) {
        if (const auto value = source.number(key, index)) {
            entries.found.push_back(*value);
            entries.indices.push_back(index);
        } else {
            entries.missing.push_back(index);
        }
    }
    return entries;
}

CategoryActions readCategoryActions(const PolicySource& source) {
    CategoryActions actions;
    if (auto value = source.text(keys::kCategoryActions, 0)) {
        actions.isThere = true;
        actions.narrow = narrowText(value->text);
        actions.characters = std::move(value->text);
    }
    return actions;
}

bool CategoryCodes::areShort() const {
    return std::all_of(codes.begin(), codes.end(), [](const TextEntry& code) { return code.narrow.has_value(); });
}

CategoryCodes readCategoryCodes(const PolicySource& source) {
    CategoryCodes read;
    const auto value = source.text(keys::kCategoryCodes, 0);
    if (!value) {
        return read;
    }
    read.isThere = true;
    const std::wstring listed = wholeCodes(*value);
    read.isCut = listed.size() < value->text.size();
    for (std::size_t begin = 0; begin < listed.size();) {
        const std::size_t end = std::min(listed.find(kSeparator, begin), listed.size());
        if (end > begin) {
            std::wstring code = listed.substr(begin, end - begin);
            auto narrow = narrowText(code);
            read.codes.push_back({static_cast<int>(read.codes.size()), std::move(code), std::move(narrow)});
        }
        begin = end + 1;
    }
    return read;
}

std::set<std::string> blockedCategories(const CategoryActions& actions, const CategoryCodes& codes, int count) {
    std::set<std::string> blocked;
    const std::size_t whole =
        std::min({static_cast<std::size_t>(std::max(count, 0)), actions.characters.size(), codes.codes.size()});
    for (std::size_t at = 0; at < whole; ++at) {
        if (digitOf(actions.characters[at]) != 0 && codes.codes[at].narrow) {
            blocked.insert(trimmed(*codes.codes[at].narrow));
        }
    }
    return blocked;
}

std::map<std::string, int> storedSites(const TextEntries& sites, const NumberEntries& actions) {
    std::map<std::string, int> stored;
    for (std::size_t at = 0; at < std::min(sites.found.size(), actions.found.size()); ++at) {
        const std::string name = trimmed(sites.found[at].narrow.value_or(""));
        if (!name.empty()) {
            stored[name] = actions.found[at];
        }
    }
    return stored;
}

bool isVersion6Range(const std::string& range) {
    return range.find(':') != std::string::npos;
}

std::set<std::string> storedRanges(const TextEntries& ranges) {
    std::set<std::string> stored;
    for (const TextEntry& range : ranges.found) {
        if (range.narrow && !range.narrow->empty() && !isVersion6Range(*range.narrow)) {
            stored.insert(*range.narrow);
        }
    }
    return stored;
}

} // namespace Sentrel::policy
