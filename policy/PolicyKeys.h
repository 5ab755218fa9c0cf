// The keys that a policy can have: the one table of their names.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace Sentrel::policy {

/// How a value is read.
enum class PolicyKind {
    Switch, ///< on for 1 and off for every other number
    Number,
    Text,
};

/// A key as it is looked up. Its names are plain ASCII.
struct PolicyKey {
    std::string_view feature; ///< where it belongs; empty: among the sections that are no feature's
    std::string_view section;
    std::string_view name; ///< of an indexed key, what stands in front of the index
    PolicyKind kind;
    bool isIndexed = false;
    bool isReadAnywhere = false; ///< found by its section's name alone, whatever feature the section is in
};

/// The product whose policies these are. It is the older id on purpose: the policies on the server bear it.
inline constexpr std::string_view kProduct = "NODE_ST_1000";

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

/// All of them, in the order in which they are read.
inline constexpr std::array<PolicyKey, 19> kAll{
    kEnforce,    kEnable,    kLogGreen,   kLogAllowed,    kUnverified,    kPhishing,        kUnreachable,
    kRangeCount, kRange,     kCategorize, kCategoryCount, kUncategorized, kCategoryActions, kCategoryCodes,
    kRatings,    kSiteCount, kPrecedence, kSite,          kSiteAction};
} // namespace keys

/// The name of a key, with its index when it has one.
std::string nameOf(const PolicyKey& key, int index = 0);

/// The index behind an indexed key's name: none when @p name is not one that nameOf gives.
std::optional<int> indexIn(const PolicyKey& key, std::string_view name);

/// Whether a name is that of an entry of a list beyond kMaxPolicyEntries, which nobody looks for.
bool isBeyondItsList(std::string_view section, std::string_view name);

/// A name in the form in which documents hold it.
inline std::wstring wide(std::string_view name) {
    return {name.begin(), name.end()};
}

} // namespace Sentrel::policy
