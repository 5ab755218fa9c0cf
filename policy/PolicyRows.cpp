#include "policy/PolicyRows.h"

#include "policy/PolicyLists.h"

namespace Sentrel::policy {
namespace {

std::optional<std::set<std::string>> rangesOf(const PolicySource& source) {
    const std::optional<int> count = source.number(keys::kRangeCount, 0);
    return count ? std::optional(storedRanges(readTexts(source, keys::kRange, boundedCount(*count)))) : std::nullopt;
}

std::optional<std::set<std::string>> categoriesOf(const PolicySource& source) {
    const std::optional<int> enabled = source.number(keys::kCategorize, 0);
    const int count = source.number(keys::kCategoryCount, 0).value_or(0);
    if (!enabled || *enabled == kCategoriesStay || *enabled == 0) { // switched off, the categories stay as they are
        return std::nullopt;
    }
    const CategoryActions actions = readCategoryActions(source);
    const CategoryCodes codes = readCategoryCodes(source);
    return actions.serve(count) && codes.serve(count) ? std::optional(blockedCategories(actions, codes, count))
                                                      : std::nullopt;
}

std::optional<std::map<std::string, int>> sitesOf(const PolicySource& source) {
    const std::optional<int> declared = source.number(keys::kSiteCount, 0);
    if (!declared) {
        return std::nullopt;
    }
    const int count = boundedCount(*declared);
    return storedSites(readTexts(source, keys::kSite, count), readNumbers(source, keys::kSiteAction, count));
}

} // namespace

PolicyRows rowsOf(const PolicySource& source) {
    if (!isEnforced(source.number(keys::kEnforce, 0))) {
        return {};
    }
    return {rangesOf(source), categoriesOf(source), sitesOf(source)};
}

} // namespace Sentrel::policy
