// The check of a policy: categories, ratings and sites, and names that nothing reads.
#include "apps/sentrelctl/policy/PolicyFindings.h"
#include "apps/sentrelctl/preferences/PreferenceNames.h"
#include "platform/hvbagent/MsgBusEnterpriseAgent.h"
#include "platform/hvbagent/StrictJson.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <set>

namespace Sentrel::ctl {
namespace {

using HVBEnterprise::SectionsHandle;

std::string narrow(const std::wstring& text) {
    return HVBEnterprise::HvbAgentUtils::wstringToString(text);
}

/// The characters of a text, of which the daemon takes no more than its buffer holds.
std::wstring charactersOf(const SectionsHandle& policy, const PolicyKey& key) {
    HVBEnterprise::PolicySetting setting;
    setting.m_featureId.assign(key.feature.begin(), key.feature.end());
    std::wstring text;
    static_cast<void>(policy.getPropValue(setting, {key.section.begin(), key.section.end()},
                                          {key.name.begin(), key.name.end()}, text));
    return text.substr(0, kMaxPolicyCharacters);
}

std::vector<std::string> codesIn(const std::wstring& text) {
    std::vector<std::string> codes;
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find(L',', begin), text.size());
        if (end > begin) {
            codes.push_back(narrow(text.substr(begin, end - begin)));
        }
        begin = end + 1;
    }
    return codes;
}

/// Compares how many there are of something with the count; fewer fail the pass.
bool enough(PolicyFindings& findings, const PolicyKey& key, std::size_t there, int count, const char* what) {
    const auto wanted = static_cast<std::size_t>(count);
    if (there < wanted) {
        findings.fail(key, fmt::format("has {} {} for the {} of {}", there, what, count, keys::kCategoryCount.name));
    } else if (there > wanted) {
        findings.warn(key, fmt::format("has {} {}, of which the first {} are used: {} says so", there, what, count,
                                       keys::kCategoryCount.name));
    }
    return there >= wanted;
}

bool checkActions(PolicyFindings& findings, int count) {
    const auto value = policyValue(findings.policy(), keys::kCategoryActions);
    if (!value) {
        findings.fail(keys::kCategoryActions, "is missing, so the categories cannot be put into force");
        return false;
    }
    if (value->size() > kMaxPolicyText) {
        findings.fail(keys::kCategoryActions, fmt::format("is longer than {} bytes", kMaxPolicyText));
        return false;
    }
    const std::wstring actions = charactersOf(findings.policy(), keys::kCategoryActions);
    const auto isDigit = [](wchar_t c) { return c >= L'0' && c <= L'9'; };
    const auto others = std::count_if(actions.begin(), actions.end(), [&](wchar_t c) { return !isDigit(c); });
    if (others > 0) {
        findings.warn(keys::kCategoryActions,
                      fmt::format("has {} characters that are no digits: their categories are left out", others));
    }
    return enough(findings, keys::kCategoryActions, actions.size(), count, "actions");
}

bool checkCodes(PolicyFindings& findings, int count) {
    const auto value = policyValue(findings.policy(), keys::kCategoryCodes);
    if (!value) {
        findings.fail(keys::kCategoryCodes, "is missing, so the categories cannot be put into force");
        return false;
    }
    const std::vector<std::string> codes = codesIn(charactersOf(findings.policy(), keys::kCategoryCodes));
    const bool areShort =
        std::all_of(codes.begin(), codes.end(), [](const std::string& code) { return code.size() <= kMaxPolicyText; });
    if (!areShort) {
        findings.fail(keys::kCategoryCodes, fmt::format("has a code that is longer than {} bytes", kMaxPolicyText));
    }
    return enough(findings, keys::kCategoryCodes, codes.size(), count, "codes") && areShort;
}

/// How many of the categories that the policy names are not left out.
std::size_t blockedOf(PolicyFindings& findings, int count) {
    const std::wstring actions = charactersOf(findings.policy(), keys::kCategoryActions);
    const std::vector<std::string> codes = codesIn(charactersOf(findings.policy(), keys::kCategoryCodes));
    std::set<std::string> blocked;
    for (std::size_t at = 0; at < static_cast<std::size_t>(count); ++at) {
        if (actions[at] >= L'1' && actions[at] <= L'9') {
            blocked.insert(codes[at]);
        }
    }
    return blocked.size();
}

void tellCategories(PolicyFindings& findings, int enabled, int count) {
    if (enabled == 0) {
        findings.effect("category blocking off; the categories on the machine stay");
        return;
    }
    if (enabled != 1) {
        findings.warn(keys::kCategorize, fmt::format("is {}, which means on: 0 is off, 1 on, -1 as it is", enabled));
    }
    const std::size_t blocked = blockedOf(findings, count);
    findings.effect("category blocking on");
    findings.effect(fmt::format("{} {} blocked", blocked, blocked == 1 ? "category" : "categories"));
}

bool checkCategories(PolicyFindings& findings) {
    const auto enabled = findings.number(keys::kCategorize);
    if (!enabled) {
        findings.fail(keys::kCategorize, "is missing, so categories, ratings and sites stay as they are");
        return false;
    }
    if (*enabled == -1) {
        findings.effect("categories: as they are");
        return true;
    }
    const auto count = findings.number(keys::kCategoryCount);
    if (!count || *count <= 0) {
        findings.fail(keys::kCategoryCount, count ? fmt::format("is {}, which the daemon does not take", *count)
                                                  : "is missing, so the categories cannot be put into force");
        return false;
    }
    const auto uncategorized = findings.number(keys::kUncategorized);
    const bool hasActions = checkActions(findings, *count);
    const bool hasCodes = checkCodes(findings, *count);
    if (!hasActions || !hasCodes) {
        return false;
    }
    tellCategories(findings, *enabled, *count);
    if (*enabled != 0) {
        findings.effect(uncategorized.value_or(0) != 0 ? "uncategorized sites: block" : "uncategorized sites: allow");
    }
    return true;
}

/// Three bits of the packed actions; what is neither pattern has the rating's own default.
struct RatingBits {
    const char* name;
    unsigned shift;
    const char* byDefault;
};

void tellRating(PolicyFindings& findings, const RatingBits& rating, unsigned packed) {
    constexpr unsigned field = 7;
    constexpr unsigned allow = 1;
    constexpr unsigned warn = 2;
    constexpr unsigned block = 4;
    const unsigned bits = (packed >> rating.shift) & field;
    const char* action = bits == allow ? "allow" : bits == warn ? "warn" : bits == block ? "block" : nullptr;
    if (action == nullptr) {
        action = rating.byDefault;
        findings.warn(keys::kRatings, fmt::format("has the bits {:03b} for {}, which is no single action: {} is taken",
                                                  bits, rating.name, action));
    }
    findings.effect(fmt::format("{}: {}", rating.name, action));
}

bool checkRatings(PolicyFindings& findings) {
    const auto packed = findings.number(keys::kRatings);
    if (!packed) {
        findings.fail(keys::kRatings, "is missing, so the ratings and the sites stay as they are");
        return false;
    }
    if (*packed == 0) {
        findings.effect("site ratings: as they are");
        return true;
    }
    constexpr std::array<RatingBits, 3> ratings{
        {{"yellow sites", 0, "warn"}, {"red sites", 3, "block"}, {"unrated sites", 6, "warn"}}};
    for (const RatingBits& rating : ratings) {
        tellRating(findings, rating, static_cast<unsigned>(*packed));
    }
    return true;
}

/// The entries of the list as they come to stand: gaps close up, each family by itself.
struct SiteEntries {
    std::vector<std::optional<std::string>> sites; ///< none for a site that is too long, which keeps its place
    std::vector<int> actions;
};

constexpr int kSiteAllow = 0;
constexpr int kSiteBlock = 1;

SiteEntries siteEntries(PolicyFindings& findings, int count) {
    SiteEntries entries;
    for (int index = 0; index < count; ++index) {
        auto site = findings.entry(keys::kSite, index);
        if (site || policyValue(findings.policy(), keys::kSite, index)) {
            entries.sites.push_back(std::move(site));
        }
        if (const auto action = findings.number(keys::kSiteAction, index)) {
            if (*action != kSiteAllow && *action != kSiteBlock) {
                findings.warn(keys::kSiteAction, fmt::format("is {}: 0 is allow, 1 block", *action), index);
            }
            entries.actions.push_back(*action);
        } else {
            findings.warn(keys::kSiteAction, "is missing", index);
        }
    }
    return entries;
}

void warnOfShift(PolicyFindings& findings, const SiteEntries& entries, int count) {
    const auto wanted = static_cast<std::size_t>(count);
    if (entries.sites.size() < wanted || entries.actions.size() < wanted) {
        findings.warn(keys::kSiteCount,
                      fmt::format("is {}, but there are {} sites and {} actions: the actions behind a "
                                  "gap go to other sites",
                                  count, entries.sites.size(), entries.actions.size()));
    }
}

std::string siteWords(const SiteEntries& entries, bool doesAllowWin) {
    std::map<std::string, int> list;
    for (std::size_t at = 0; at < std::min(entries.sites.size(), entries.actions.size()); ++at) {
        if (entries.sites[at]) {
            list[*entries.sites[at]] = entries.actions[at];
        }
    }
    const auto having = [&](int action) {
        return std::count_if(list.begin(), list.end(), [action](const auto& each) { return each.second == action; });
    };
    return fmt::format("{} {}: {} blocked, {} allowed, {} entries win", list.size(),
                       list.size() == 1 ? "site" : "sites", having(kSiteBlock), having(kSiteAllow),
                       doesAllowWin ? "allow" : "block");
}

/// Names among which one that nothing reads may have been meant.
std::string guess(const std::string& word, const std::set<std::string_view>& names) {
    const auto near = nearest(word, {names.begin(), names.end()});
    return near ? fmt::format("; perhaps '{}' is meant", *near) : "";
}

bool isNamed(const PolicyKey& key, const std::string& name) {
    return key.isIndexed ? indexIn(key, name).has_value() : key.name == name;
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
    const SiteEntries entries = siteEntries(findings, count);
    warnOfShift(findings, entries, count);
    findings.warnOfSurplus(keys::kSite, keys::kSiteCount, count);
    findings.warnOfSurplus(keys::kSiteAction, keys::kSiteCount, count);
    findings.effect(isReached ? siteWords(entries, precedence.value_or(-1) != 0)
                              : "sites: as they are, since what comes before them fails");
}

void checkNames(PolicyFindings& findings) {
    checkSectionNames(findings, std::nullopt, findings.policy().sections());
    const std::set<std::string_view> known{keys::kGeneral, keys::kContent, keys::kList};
    for (const auto& [wideFeature, sections] : findings.policy().features()) {
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
