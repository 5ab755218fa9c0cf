// The check of a policy's categories, ratings and sites, and of names that nothing reads.
//
// The daemon reads a list in parts that belong together by position: actions and codes of categories, sites and actions
// of the list. So most problems here are about counts that do not fit each other. Too few actions or codes fail the
// pass, and too many are cut off. A gap in the list of sites fails nothing, but moves the actions behind it to other
// sites, which is worse; so it is told with both numbers, and the verbs refuse it unless they are told to let it
// through.
//
// What must stay so:
// - A missing switch of the categories ends the second pass, as in the daemon; so does a missing rating value.
// - The list of sites is checked also when the second pass fails, but its effect is then that the sites stay.
// - The daemon ignores names that it does not know. Only this check finds a misspelt key, so checkNames() goes through
//   the whole document and compares it with the table of keys. A key in the wrong feature gets its right one named.
// - How many sites and categories are told is counted after trimming and removing repeated names, as they are stored.
#include "apps/sentrelctl/policy/PolicyFindings.h"
#include "apps/sentrelctl/policy/PolicyPlaces.h"
#include "apps/sentrelctl/terminal/Nearest.h"
#include "policy/PolicyLimits.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <set>

namespace Sentrel::ctl {

using policy::PolicyKey;
namespace keys = policy::keys;
namespace {

using HVBEnterprise::SectionsHandle;

std::string narrow(const std::wstring& text) {
    return HVBEnterprise::HvbAgentUtils::wstringToString(text);
}

/// Compares how many there are of something with the count; fewer fail the pass.
void compare(PolicyFindings& findings, const PolicyKey& key, std::size_t there, int count, const char* what) {
    const auto wanted = static_cast<std::size_t>(count);
    if (there < wanted) {
        findings.fail(key, fmt::format("has {} {} for the {} of {}", there, what, count, keys::kCategoryCount.name));
    } else if (there > wanted) {
        findings.warn(key, fmt::format("has {} {}, of which the first {} are used: {} says so", there, what, count,
                                       keys::kCategoryCount.name));
    }
}

void checkActions(PolicyFindings& findings, const policy::CategoryActions& actions, int count) {
    if (!actions.isThere) {
        findings.fail(keys::kCategoryActions, "is missing, so the categories cannot be put into force");
        return;
    }
    if (!actions.narrow) {
        findings.fail(keys::kCategoryActions, fmt::format("is longer than {} bytes", policy::kMaxNarrowBytes));
        return;
    }
    const auto isDigit = [](wchar_t c) { return c >= L'0' && c <= L'9'; };
    const auto others =
        std::count_if(actions.characters.begin(), actions.characters.end(), [&](wchar_t c) { return !isDigit(c); });
    if (others > 0) {
        findings.warn(keys::kCategoryActions,
                      fmt::format("has {} characters that are no digits: their categories are left out", others));
    }
    compare(findings, keys::kCategoryActions, actions.characters.size(), count, "actions");
}

void checkCodes(PolicyFindings& findings, const policy::CategoryCodes& codes, int count) {
    if (!codes.isThere) {
        findings.fail(keys::kCategoryCodes, "is missing, so the categories cannot be put into force");
        return;
    }
    if (codes.isCut) {
        findings.warn(keys::kCategoryCodes, fmt::format("is longer than {} characters: no code behind them is taken, "
                                                        "nor one that begins before their end",
                                                        policy::kMaxTextCharacters));
    }
    if (!codes.areShort()) {
        findings.fail(keys::kCategoryCodes,
                      fmt::format("has a code that is longer than {} bytes", policy::kMaxNarrowBytes));
    }
    compare(findings, keys::kCategoryCodes, codes.codes.size(), count, "codes");
}

void tellCategories(PolicyFindings& findings, int enabled, std::size_t blocked) {
    if (enabled == 0) {
        findings.effect("category blocking off; the categories on the machine stay");
        return;
    }
    if (enabled != 1) {
        findings.warn(keys::kCategorize, fmt::format("is {}, which means on: 0 is off, 1 on, -1 as it is", enabled));
    }
    findings.effect("category blocking on");
    findings.effect(fmt::format("{} {} blocked", blocked, blocked == 1 ? "category" : "categories"));
}

bool checkCategories(PolicyFindings& findings) {
    const auto enabled = findings.number(keys::kCategorize);
    if (!enabled) {
        findings.fail(keys::kCategorize, "is missing, so categories, ratings and sites stay as they are");
        return false;
    }
    if (*enabled == policy::kCategoriesStay) {
        findings.effect("categories: as they are");
        return true;
    }
    const auto count = findings.number(keys::kCategoryCount);
    if (!count || *count <= 0) {
        findings.fail(keys::kCategoryCount, count ? fmt::format("is {}, which the daemon does not take", *count)
                                                  : "is missing, so the categories cannot be put into force");
        return false;
    }
    const int uncategorized = findings.number(keys::kUncategorized).value_or(policy::kUncategorizedByDefault);
    const policy::CategoryActions actions = policy::readCategoryActions(findings);
    const policy::CategoryCodes codes = policy::readCategoryCodes(findings);
    checkActions(findings, actions, *count);
    checkCodes(findings, codes, *count);
    if (!actions.serve(*count) || !codes.serve(*count)) {
        return false;
    }
    tellCategories(findings, *enabled, policy::blockedCategories(actions, codes, *count).size());
    if (*enabled != 0) {
        findings.effect(uncategorized != 0 ? "uncategorized sites: block" : "uncategorized sites: allow");
    }
    return true;
}

const char* ratingWords(policy::Rating rating) {
    switch (rating) {
    case policy::Rating::Yellow:
        return "yellow sites";
    case policy::Rating::Red:
        return "red sites";
    default:
        return "unrated sites";
    }
}

void tellRating(PolicyFindings& findings, const policy::RatingField& field, int packed) {
    const char* const name = ratingWords(field.rating);
    const char* const action = actionWord(field.actionOf(packed));
    if (!field.isSingle(packed)) {
        findings.warn(keys::kRatings, fmt::format("has the bits {:03b} for {}, which is no single action: {} is taken",
                                                  field.bitsOf(packed), name, action));
    }
    findings.effect(fmt::format("{}: {}", name, action));
}

bool checkRatings(PolicyFindings& findings) {
    const auto packed = findings.number(keys::kRatings);
    if (!packed) {
        findings.fail(keys::kRatings, "is missing, so the ratings and the sites stay as they are");
        return false;
    }
    if (*packed == policy::kRatingsStay) {
        findings.effect("site ratings: as they are");
        return true;
    }
    for (const policy::RatingField& field : policy::kRatingFields) {
        tellRating(findings, field, *packed);
    }
    return true;
}

void checkSiteActions(PolicyFindings& findings, const policy::NumberEntries& actions) {
    findings.warnOfMissing(keys::kSiteAction, actions.missing);
    for (std::size_t at = 0; at < actions.found.size(); ++at) {
        const int action = actions.found[at];
        if (action != policy::kSiteAllow && action != policy::kSiteBlock) {
            findings.warn(keys::kSiteAction, fmt::format("is {}: 0 is allow, 1 block", action), actions.indices[at]);
        }
    }
}

/// Compares the entries that are missing: where only one of the two is, the other ones move against each other.
void checkGaps(PolicyFindings& findings, const policy::TextEntries& sites, const policy::NumberEntries& actions,
               int count) {
    const auto [site, action] =
        std::mismatch(sites.missing.begin(), sites.missing.end(), actions.missing.begin(), actions.missing.end());
    const bool isSite = site != sites.missing.end() && (action == actions.missing.end() || *site < *action);
    const bool isAction = !isSite && action != actions.missing.end();
    if (isSite) {
        findings.noteGap(keys::kSite, keys::kSiteAction, *site);
    } else if (isAction) {
        findings.noteGap(keys::kSiteAction, keys::kSite, *action);
    }
    if (!sites.missing.empty() || !actions.missing.empty()) {
        findings.warn(keys::kSiteCount,
                      fmt::format("is {}, but there are {} sites and {} actions{}", count, sites.found.size(),
                                  actions.found.size(),
                                  isSite || isAction ? ": the actions behind a gap go to other sites" : ""));
    }
}

std::string siteWords(const std::map<std::string, int>& list, int precedence) {
    const auto allowed =
        std::count_if(list.begin(), list.end(), [](const auto& each) { return each.second == policy::kSiteAllow; });
    return fmt::format("{} {}: {} blocked, {} allowed, {} entries win", list.size(),
                       list.size() == 1 ? "site" : "sites", static_cast<std::ptrdiff_t>(list.size()) - allowed, allowed,
                       policy::doesAllowWin(precedence) ? "allow" : "block");
}

/// A hint at the one of @p names that a misspelt @p word may have been meant for; empty when none is near.
std::string guess(const std::string& word, const std::set<std::string_view>& names) {
    const auto near = nearest(word, {names.begin(), names.end()});
    return near ? fmt::format("; perhaps '{}' is meant", *near) : "";
}

bool isNamed(const PolicyKey& key, const std::string& name) {
    return key.isIndexed ? policy::indexIn(key, name).has_value() : key.name == name;
}

/// Why nothing reads a key; empty when something does.
std::string whyUnread(const std::optional<std::string>& feature, const std::string& section, const std::string& name) {
    std::set<std::string_view> siblings;
    std::string_view home;
    for (const PolicyKey& key : keys::kAll) {
        if (key.section != section) {
            continue;
        }
        siblings.insert(key.name);
        if (isNamed(key, name)) {
            if (key.isReadAnywhere || (feature && key.feature == *feature)) {
                return "";
            }
            home = key.feature;
        }
    }
    return home.empty() ? "is no key that is read" + guess(name, siblings)
                        : fmt::format("is read in the feature {} only", home);
}

/// The sections of a feature, or of those that are no feature's, with their keys.
void checkSectionNames(PolicyFindings& findings, const std::optional<std::string>& feature,
                       const SectionsHandle::Sections& sections) {
    std::set<std::string_view> known;
    for (const PolicyKey& key : keys::kAll) {
        known.insert(key.section);
    }
    for (const auto& [wideSection, values] : sections) {
        const std::string section = narrow(wideSection);
        if (known.count(section) == 0) {
            findings.warnAt(placeOf(feature, section, ""), "is no section that is read" + guess(section, known));
            continue;
        }
        for (const auto& [wideName, value] : values) {
            const std::string name = narrow(wideName);
            if (std::string why = whyUnread(feature, section, name); !why.empty()) {
                findings.warnAt(placeOf(feature, section, name), std::move(why));
            }
        }
    }
}

} // namespace

bool checkCategoriesAndRatings(PolicyFindings& findings) {
    return checkCategories(findings) && checkRatings(findings);
}

void checkSites(PolicyFindings& findings, bool isReached) {
    const auto declared = findings.number(keys::kSiteCount);
    if (!declared) {
        findings.fail(keys::kSiteCount, "is missing, so the list of sites stays as it is");
        return;
    }
    const auto precedence = findings.number(keys::kPrecedence);
    if (!precedence) {
        findings.warn(keys::kPrecedence, "is missing, so allow entries win");
    }
    const int count = findings.bounded(keys::kSiteCount, *declared);
    const policy::TextEntries sites = policy::readTexts(findings, keys::kSite, count);
    const policy::NumberEntries actions = policy::readNumbers(findings, keys::kSiteAction, count);
    findings.warnOfEntries(keys::kSite, sites);
    checkSiteActions(findings, actions);
    checkGaps(findings, sites, actions, count);
    findings.warnOfSurplus(keys::kSite, keys::kSiteCount, count);
    findings.warnOfSurplus(keys::kSiteAction, keys::kSiteCount, count);
    findings.effect(
        isReached ? siteWords(policy::storedSites(sites, actions), precedence.value_or(policy::kPrecedenceByDefault))
                  : "sites: as they are, since what comes before them fails");
}

void checkNames(PolicyFindings& findings) {
    checkSectionNames(findings, std::nullopt, findings.document().sections());
    const std::set<std::string_view> known{keys::kGeneral, keys::kContent, keys::kList};
    for (const auto& [wideFeature, sections] : findings.document().features()) {
        const std::string feature = narrow(wideFeature);
        if (known.count(feature) == 0) {
            findings.warnAt(HVBEnterprise::agent::memberPlace("/features", feature),
                            "is no feature that is read" + guess(feature, known));
        } else {
            checkSectionNames(findings, feature, sections);
        }
    }
}

} // namespace Sentrel::ctl
