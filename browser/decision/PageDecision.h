// What happens to a page, and why.
#pragma once

#include "browser/decision/PrivateRanges.h"
#include "browser/decision/SafeSearch.h"
#include "browser/decision/SiteList.h"
#include "browser/decision/WebUrl.h"
#include "events/NPlgHelper.h"
#include "events/STEventData.h"
#include "platform/settings/SettingsSnapshot.h"

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace Sentrel::browsing {

/// A site that nobody has rated.
inline constexpr std::int32_t kNoRating = -100;

/// What the user answered to a warning, as the record's userAction has it. The report shows the number as its action,
/// so it is none of the daemon's own 1, 2 and 4.
enum class UserAction : std::int32_t {
    None = 0,       ///< nobody has answered yet
    WentOn = 5,     ///< the user went to the page all the same
    TurnedBack = 6, ///< the user did not
};

/// A content category that a site is in.
struct SiteCategory {
    std::string name;        ///< as the settings call it
    std::int32_t number = 0; ///< as the report has it
};

/// What is known of a site from elsewhere: who rates sites fills it in.
/// Threads: a plain value. Owner: the holder.
struct SiteStanding {
    std::int32_t rating = kNoRating;
    std::vector<SiteCategory> categories{};
    bool isPhishing = false;
    bool isReachable = true; ///< whoever rates sites could be asked
};

/// The action of a page, as the record has it.
enum class PageAction : std::int32_t { Allow = 1, Warn = 2, Block = 3 };

/// What is looked at, in this order; the first that decides ends it.
enum class Stage { Address, Protection, List, PrivateRange, Reachability, Category, Phishing, Rating };

/// A stage, and whether it decided. Those behind the one that decided were not looked at, and are not there.
struct Step {
    Stage stage;
    bool decided;

    bool operator==(const Step&) const = default;
};

/// When a decision is to be reported.
enum class Reporting {
    Never,
    AtOnce,
    WhenAnswered, ///< once the user has answered the warning, with the answer in userAction
};

/// Threads: a plain value. Owner: the holder.
struct PageDecision {
    /// The record of it; the caller adds event id and process name, and the answer to a warning. The address in it is
    /// cut where the field ends.
    STEventData record{};
    std::string url; ///< whole, in its one form; as it was given when it is not the address of a web page
    std::vector<Step> steps;
    Reporting reporting = Reporting::Never;
    std::optional<UrlFault> fault;            ///< why it is not the address of a web page
    std::string_view setting;                 ///< key of the setting that decided; empty when none did
    std::size_t entry = SiteList::kNone;      ///< place in the list of the entry that decided
    std::size_t overruled = SiteList::kNone;  ///< of the entry that fits too and has no precedence
    std::size_t range = PrivateRanges::kNone; ///< place of the private range that the host is in
    std::optional<SiteCategory> category;     ///< the one that decided; without a name: the site has none
    std::optional<std::string> safeSearch;    ///< where to go in place of the page, when it may be opened

    PageAction action() const { return static_cast<PageAction>(record.action); }
    Stage decidedBy() const { return steps.back().stage; }
};

/// The settings as they decide, built once for a snapshot.
/// Threads: any, it never changes. Owner: the holder; it has copies of what it needs.
class PageRules {
public:
    /// Requires that the snapshot has values: its state is not None.
    explicit PageRules(const settings::SettingsSnapshot& snapshot);

    /// Decides on the page at @p address. What is no web page is allowed and never reported. A text that begins as one
    /// and cannot be read is in no list, and otherwise decided as any page.
    PageDecision decide(std::string_view address, const SiteStanding& standing) const;

    bool isProtecting() const { return m_isProtecting; }
    bool allowsFirst() const { return m_allowsFirst; }
    bool blocksCategories() const { return m_blocksCategories; }
    bool blocksUncategorised() const { return m_blocksUncategorised; }
    bool reportsGreen() const { return m_reportsGreen; }
    bool reportsAllowed() const { return m_reportsAllowed; }
    bool searchesSafely() const { return m_searchesSafely; }
    /// The action for each rating, as the events' rules take it.
    const NPlgHelper::RateActionMap& actions() const { return m_actions; }
    const std::vector<settings::ListEntry>& entries() const { return m_entries; }
    const std::vector<std::string>& ranges() const { return m_rangeTexts; }
    /// The names of the blocked ones.
    const std::set<std::string, std::less<>>& categories() const { return m_categories; }
    const SiteList& list() const { return m_list; }
    const PrivateRanges& privateRanges() const { return m_ranges; }

private:
    void fillIn(PageDecision& decision, const WebUrl* url, const SiteStanding& standing) const;
    void blockCategory(PageDecision& decision, const SiteStanding& standing) const;
    void explain(PageDecision& decision) const;
    std::vector<Step> stepsUpTo(Stage last) const;
    Reporting reportingOf(const PageDecision& decision) const;

    bool m_isProtecting;
    bool m_allowsFirst;
    bool m_blocksCategories;
    bool m_blocksUncategorised;
    bool m_reportsGreen;
    bool m_reportsAllowed;
    bool m_searchesSafely;
    NPlgHelper::RateActionMap m_actions;
    std::vector<settings::ListEntry> m_entries;
    std::vector<std::string> m_rangeTexts;
    std::set<std::string, std::less<>> m_categories;
    SiteList m_list;
    PrivateRanges m_ranges;
};

/// The key of the setting that holds the action for a rating; empty for minimal risk, which is always allowed.
std::string_view settingOfRating(std::int32_t rating);

} // namespace Sentrel::browsing
