// The keys that a policy can have: the one table of their names.
#pragma once

#include "platform/hvbagent/AgentDocuments.h"

#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace Sentrel::ctl {

/// How the daemon reads a value.
enum class PolicyKind {
    Switch, ///< on for 1 and off for every other number
    Number,
    Text,
};

/// A key as the daemon looks it up.
/// Threads: a constant. Owner: the program.
struct PolicyKey {
    std::string_view feature; ///< where it belongs; empty: among the sections that are no feature's
    std::string_view section;
    std::string_view name; ///< of an indexed key, what stands in front of the index
    PolicyKind kind;
    bool isIndexed = false;
    bool isReadAnywhere = false; ///< found by its section's name alone, whatever feature the section is in
};

namespace keys {
inline constexpr std::string_view kGeneral = "KPF_General";
inline constexpr std::string_view kContent = "KPF_ContentFiltering";
inline constexpr std::string_view kList = "KPF_BlockAndAllowList";

inline constexpr PolicyKey kEnforce{"", "NODE_ST_1070UNIX", "EnforcePolicy", PolicyKind::Number, false, true};
inline constexpr PolicyKey kEnable{kGeneral, "Sentrel", "bEnableSentrel", PolicyKind::Switch};
inline constexpr PolicyKey kLogGreen{kGeneral, "EventLogging", "bGreenRatedSites", PolicyKind::Switch};
inline constexpr PolicyKey kLogAllowed{kGeneral, "EventLogging", "bAllowedConfiguredBlockAllowList",
                                       PolicyKind::Switch};
inline constexpr PolicyKey kUnverified{kGeneral, "ActionEnforcement", "applyActionNonRPX", PolicyKind::Number};
inline constexpr PolicyKey kPhishing{kGeneral, "ActionEnforcement", "bPhishingBlock", PolicyKind::Switch};
inline constexpr PolicyKey kUnreachable{kGeneral, "ActionEnforcement", "bRpxFailClose", PolicyKind::Switch};
inline constexpr PolicyKey kRangeCount{kGeneral, "ActionEnforcement", "uiAgumentIPCount", PolicyKind::Number};
inline constexpr PolicyKey kRange{kGeneral, "ActionEnforcement", "szAgumentIP_", PolicyKind::Text, true, true};
inline constexpr PolicyKey kCategorize{kContent, "ContentActions", "bEnableCategorization", PolicyKind::Number};
inline constexpr PolicyKey kCategoryCount{kContent, "ContentActions", "uiBitCount", PolicyKind::Number};
inline constexpr PolicyKey kUncategorized{kContent, "ContentActions", "uiActionUncategorized", PolicyKind::Number};
inline constexpr PolicyKey kCategoryActions{kContent, "ContentActions", "szActionCodes", PolicyKind::Text};
inline constexpr PolicyKey kCategoryCodes{kContent, "ContentActions", "uiContentBitCodes", PolicyKind::Text};
inline constexpr PolicyKey kRatings{kContent, "RatingActions", "uiOverall", PolicyKind::Number};
inline constexpr PolicyKey kSiteCount{kList, "BlockAndAllowList", "uiSiteCount", PolicyKind::Number};
inline constexpr PolicyKey kPrecedence{
    kList, "BlockAndAllowList", "bPrecedenceOverProhibitLists", PolicyKind::Number, false, true};
inline constexpr PolicyKey kSite{kList, "BlockAndAllowList", "szSite", PolicyKind::Text, true, true};
inline constexpr PolicyKey kSiteAction{kList, "BlockAndAllowList", "Action", PolicyKind::Number, true, true};

/// All of them, in the order in which the daemon reads them.
inline constexpr std::array<PolicyKey, 19> kAll{
    kEnforce,    kEnable,    kLogGreen,   kLogAllowed,    kUnverified,    kPhishing,        kUnreachable,
    kRangeCount, kRange,     kCategorize, kCategoryCount, kUncategorized, kCategoryActions, kCategoryCodes,
    kRatings,    kSiteCount, kPrecedence, kSite,          kSiteAction};
} // namespace keys

/// A number as the daemon reads it.
struct PolicyNumber {
    int value;
    bool isWhole; ///< the whole text is a number of 32 bits; otherwise the daemon takes its beginning, or 0
};
PolicyNumber readPolicyNumber(std::string_view text);

/// The name of a key, with its index when it has one.
std::string nameOf(const PolicyKey& key, int index = 0);

/// The index behind an indexed key's name: none when @p name is not one as the daemon writes it.
std::optional<int> indexIn(const PolicyKey& key, std::string_view name);

/// Looks a key up as the daemon does. Nothing when it is not there.
std::optional<std::string> policyValue(const HVBEnterprise::SectionsHandle& policy, const PolicyKey& key,
                                       int index = 0);

/// The place of a key in the document, as a JSON pointer: where it is found, or where it belongs when it is missing.
std::string placeOf(const HVBEnterprise::SectionsHandle& policy, const PolicyKey& key, int index = 0);

/// The place of any key: @p feature is none for the sections that are no feature's.
std::string placeOf(const std::optional<std::string>& feature, const std::string& section, const std::string& key);

} // namespace Sentrel::ctl
