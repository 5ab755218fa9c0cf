// A decision is NPlgHelper's. What is decided here is what it is asked: the fields of the record are filled in from the
// address, the settings and what is known of the site. Why it came out so is then read from the record in the order of
// the same rules; a test goes through all of them and holds the two against each other.
//
// What must stay so:
// - The list is asked first, so an entry decides on a private address too, as on any other.
// - A private address is a site without risk: nobody could rate it. Only an address in the URL counts; a name is not
//   looked up, which would take time, tell others of it, and be in the hands of whoever owns the name.
// - A site is uncategorised only when those who know categories could be asked. When they could not, the setting for
//   that decides, and not the one for sites of no category.
// - An address that cannot be read although it is one of the web never means that the page is open: it is decided by
//   what is known of the site.
#include "browser/decision/PageDecision.h"

#include <algorithm>
#include <array>

namespace Sentrel::browsing {
namespace {

constexpr std::int32_t kMinimalRisk = 0; // any rating with that name
constexpr std::string_view kBlock = "BLOCK";

/// A number of the settings, with the value that counts while it is missing.
std::int32_t numberIn(const settings::SettingsSnapshot& snapshot, const char* key, std::int32_t otherwise) {
    const auto found = snapshot.numbers.find(key);
    return found != snapshot.numbers.end() ? found->second : otherwise;
}

bool isOn(const settings::SettingsSnapshot& snapshot, const char* key, bool otherwise) {
    return numberIn(snapshot, key, otherwise ? 1 : 0) != 0;
}

NPlgHelper::RateActionMap actionsIn(const settings::SettingsSnapshot& snapshot) {
    constexpr auto allow = static_cast<std::int32_t>(PageAction::Allow);
    constexpr auto warn = static_cast<std::int32_t>(PageAction::Warn);
    constexpr auto block = static_cast<std::int32_t>(PageAction::Block);
    const auto action = [&](const char* key, std::int32_t otherwise) {
        return NPlgHelper::GetActionString(numberIn(snapshot, key, otherwise));
    };
    const auto blockWhen = [&](const char* key, bool otherwise) {
        return NPlgHelper::GetActionString(isOn(snapshot, key, otherwise) ? block : allow);
    };
    return {{"RED", action("RedSiteAction", block)},
            {"YELLOW", action("YellowSiteAction", warn)},
            {"UNRATED", action("UnverifiedSiteAction", allow)},
            {"UNVERIFIED", action("GenPolicyUnverifiedAction", allow)},
            {"PHISHING", blockWhen("GenPolicyBlockPhishingAction", true)},
            {"RPXUNREACHABLE", blockWhen("GenPolicyRPXUnReachableAction", false)}};
}

std::set<std::string, std::less<>> namesIn(const std::vector<settings::ListEntry>& categories) {
    std::set<std::string, std::less<>> names;
    for (const settings::ListEntry& category : categories) {
        names.insert(category.name); // whatever its number is: a name that is there is blocked
    }
    return names;
}

void putUrl(STEventData& record, const std::string& url) {
    const std::size_t bytes = std::min(url.size(), sizeof record.url - 1);
    std::copy_n(url.data(), bytes, record.url);
}

/// Whether a text that could not be read is one of the web all the same.
bool isOfTheWeb(UrlFault fault) {
    return fault != UrlFault::NoScheme && fault != UrlFault::OtherScheme;
}

} // namespace

std::string_view settingOfRating(std::int32_t rating) {
    static const std::map<std::string, std::string_view> settings{{"RED", "RedSiteAction"},
                                                                  {"YELLOW", "YellowSiteAction"},
                                                                  {"UNRATED", "UnverifiedSiteAction"},
                                                                  {"UNVERIFIED", "GenPolicyUnverifiedAction"}};
    const auto found = settings.find(NPlgHelper::GetRatingStr(rating));
    return found != settings.end() ? found->second : std::string_view();
}

PageRules::PageRules(const settings::SettingsSnapshot& snapshot)
    : m_isProtecting(isOn(snapshot, "Enabled", true)), m_allowsFirst(isOn(snapshot, "ALLOW_OVER_Block", false)),
      m_blocksCategories(isOn(snapshot, "CAT_Enabled", true)),
      m_blocksUncategorised(isOn(snapshot, "UNCAT_Block", false)),
      m_reportsGreen(isOn(snapshot, "GenPolicyLogGreenSiteAction", false)),
      m_reportsAllowed(isOn(snapshot, "GenPolicyLogAllowSiteAction", false)),
      m_searchesSafely(isOn(snapshot, "SSOn", false)), m_actions(actionsIn(snapshot)), m_entries(snapshot.allowBlock),
      m_rangeTexts(snapshot.privateRanges), m_categories(namesIn(snapshot.categories)),
      m_list(m_entries, m_allowsFirst), m_ranges(m_rangeTexts) {}

PageDecision PageRules::decide(std::string_view address, const SiteStanding& standing) const {
    PageDecision decision;
    decision.record.count = 1;
    decision.record.isRpxReachable = 1;
    decision.record.urlRating = kNoRating;
    decision.record.action = static_cast<std::int32_t>(PageAction::Allow);
    const auto reading = parseWebUrl(address);
    const WebUrl* const url = std::get_if<WebUrl>(&reading);
    if (url == nullptr) {
        decision.fault = std::get<UrlFault>(reading);
    }
    decision.url = url != nullptr ? url->text() : std::string(address);
    putUrl(decision.record, decision.url);
    if (decision.fault && !isOfTheWeb(*decision.fault)) {
        decision.steps = stepsUpTo(Stage::Address);
        return decision;
    }
    if (!m_isProtecting) {
        decision.steps = stepsUpTo(Stage::Protection);
        decision.setting = "Enabled";
        return decision;
    }
    fillIn(decision, url, standing);
    NPlgHelper::RateActionMap actions = m_actions; // asking it may add keys
    NPlgHelper::GetURLAction(decision.record, actions);
    explain(decision);
    decision.reporting = reportingOf(decision);
    if (decision.decidedBy() != Stage::Category) {
        decision.category.reset(); // the record keeps it
    }
    if (m_searchesSafely && url != nullptr && decision.action() != PageAction::Block) {
        decision.safeSearch = withSafeSearch(*url);
    }
    return decision;
}

void PageRules::fillIn(PageDecision& decision, const WebUrl* url, const SiteStanding& standing) const {
    if (url != nullptr) {
        decision.entry = m_list.find(*url, &decision.overruled);
        decision.range = url->address ? m_ranges.find(*url->address) : PrivateRanges::kNone;
    }
    STEventData& record = decision.record;
    if (decision.entry != SiteList::kNone) {
        record.inAllowBlockList = 1;
        record.blockedInAllowBlockList = m_entries[decision.entry].value != 0 ? 1 : 0;
    }
    if (decision.range != PrivateRanges::kNone && decision.entry == SiteList::kNone) {
        record.urlRating = kMinimalRisk;
        return;
    }
    record.urlRating = standing.rating;
    record.isPhishing = standing.isPhishing ? 1 : 0;
    record.isRpxReachable = standing.isReachable ? 1 : 0;
    blockCategory(decision, standing);
}

void PageRules::blockCategory(PageDecision& decision, const SiteStanding& standing) const {
    if (!m_blocksCategories) {
        return;
    }
    if (standing.categories.empty() && m_blocksUncategorised && standing.isReachable) {
        decision.category.emplace();
    }
    const auto blocked =
        std::find_if(standing.categories.begin(), standing.categories.end(),
                     [this](const SiteCategory& category) { return m_categories.contains(category.name); });
    if (blocked != standing.categories.end()) {
        decision.category = *blocked;
    }
    if (decision.category) {
        decision.record.blockedInCategory = 1;
        decision.record.blockedCategoryId = decision.category->number;
    }
}

/// Which of the rules it was, in their order.
void PageRules::explain(PageDecision& decision) const {
    const STEventData& record = decision.record;
    if (record.inAllowBlockList == 1) {
        decision.steps = stepsUpTo(Stage::List);
    } else if (decision.range != PrivateRanges::kNone) {
        decision.steps = stepsUpTo(Stage::PrivateRange);
    } else if (record.isRpxReachable == 0 && m_actions.at("RPXUNREACHABLE") == kBlock) {
        decision.steps = stepsUpTo(Stage::Reachability);
        decision.setting = "GenPolicyRPXUnReachableAction";
    } else if (record.blockedInCategory == 1) {
        decision.steps = stepsUpTo(Stage::Category);
        decision.setting = decision.category->name.empty() ? "UNCAT_Block" : "CAT_Enabled";
    } else if (record.isPhishing == 1 && m_actions.at("PHISHING") == kBlock) {
        decision.steps = stepsUpTo(Stage::Phishing);
        decision.setting = "GenPolicyBlockPhishingAction";
    } else {
        decision.steps = stepsUpTo(Stage::Rating);
        decision.setting = settingOfRating(record.urlRating);
    }
}

std::vector<Step> PageRules::stepsUpTo(Stage last) const {
    std::vector<Step> steps;
    steps.reserve(static_cast<std::size_t>(Stage::Rating) + 1);
    for (auto stage = Stage::Address; stage < last; stage = static_cast<Stage>(static_cast<int>(stage) + 1)) {
        steps.push_back({stage, false});
    }
    steps.push_back({last, true});
    return steps;
}

Reporting PageRules::reportingOf(const PageDecision& decision) const {
    switch (decision.action()) {
    case PageAction::Block:
        return Reporting::AtOnce;
    case PageAction::Warn:
        return Reporting::WhenAnswered;
    case PageAction::Allow:
        break;
    }
    const bool isGreen = decision.decidedBy() == Stage::Rating && decision.setting.empty();
    const bool isListed = decision.decidedBy() == Stage::List;
    return (isListed && m_reportsAllowed) || (isGreen && m_reportsGreen) ? Reporting::AtOnce : Reporting::Never;
}

} // namespace Sentrel::browsing
