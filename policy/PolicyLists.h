// How the lists of a policy are read, and which of their entries get into the settings file.
#pragma once

#include "policy/PolicyValues.h"

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace Sentrel::policy {

/// A text of a list.
struct TextEntry {
    int index; ///< in the policy
    std::wstring text;
    std::optional<std::string> narrow; ///< none for one that is too long: it keeps its place, and is left out
};

/// The texts of an indexed key.
struct TextEntries {
    std::vector<TextEntry> found;
    std::vector<int> missing; ///< indices without a value
};

/// The numbers of an indexed key.
struct NumberEntries {
    std::vector<int> found;
    std::vector<int> indices; ///< of those that were found
    std::vector<int> missing;
};

/// How many entries are looked for when a list declares that many: 0 to kMaxPolicyEntries.
int boundedCount(int declared);

/// The entries of @p key below @p declared, which is bounded here.
TextEntries readTexts(const PolicySource& source, const PolicyKey& key, int declared);
NumberEntries readNumbers(const PolicySource& source, const PolicyKey& key, int declared);

/// The actions of the categories, a digit for each.
struct CategoryActions {
    bool isThere = false;
    std::wstring characters;
    std::optional<std::string> narrow; ///< none when they are too long, or missing

    /// Whether a policy of @p count categories can be put into force with them.
    bool serve(int count) const { return count > 0 && narrow && characters.size() >= static_cast<std::size_t>(count); }
};
CategoryActions readCategoryActions(const PolicySource& source);

/// The codes of the categories.
struct CategoryCodes {
    bool isThere = false;
    bool isCut = false;           ///< the text was cut within a code, which is not among these
    std::vector<TextEntry> codes; ///< without the empty ones

    bool areShort() const;
    bool serve(int count) const { return areShort() && codes.size() >= static_cast<std::size_t>(count); }
};
CategoryCodes readCategoryCodes(const PolicySource& source);

/// A list's entries as the settings file holds them: blanks around a name are removed, a repeated name replaces the
/// earlier one, and an entry without a name is left out.
std::set<std::string> blockedCategories(const CategoryActions& actions, const CategoryCodes& codes, int count);
std::map<std::string, int> storedSites(const TextEntries& sites, const NumberEntries& actions);
std::set<std::string> storedRanges(const TextEntries& ranges);

/// Whether a range is of the kind that is left out.
bool isVersion6Range(const std::string& range);

/// The actions of the list of sites.
inline constexpr int kSiteAllow = 0;
inline constexpr int kSiteBlock = 1;

} // namespace Sentrel::policy
