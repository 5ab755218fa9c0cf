// The second pass: blocked categories and the actions of the site ratings. Its failure keeps the third from running.
#include "daemon/Trace.h"
#include "managed/PolicyChecksum.h"
#include "managed/PolicyValues.h"
#include "managed/VXPolicyEnforcementImpl.h"
#include "platform/stlogger/STLogger.h"
#include "store/STPreferenceController.h"

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

#include <algorithm>
#include <array>

namespace Sentrel {
namespace {

using HVBEnterprise::PolicySetting;
using HVBEnterprise::SectionsHandle;

constexpr int kDebugSeverity = 7;
constexpr const wchar_t* kContentSection = L"ContentActions";

STPreferenceController& preferences() {
    return *STPreferenceController::getInstance();
}

/// What the policy says of the categories.
struct Categories {
    int enabled = -1;
    int uncategorized = 0;
    std::vector<wchar_t> actions;
    std::vector<std::wstring> codes;
    std::string checksumText; ///< switch, actions and codes, without separators
};

/// The action characters. @return false when the policy has not one for each category.
bool gatherActions(const SectionsHandle& policy, const PolicySetting& setting, int count, Categories& categories) {
    const auto actions =
        count > 0 ? detail::policyText(policy, setting, kContentSection, L"szActionCodes") : std::nullopt;
    const auto narrow = actions ? detail::narrowPolicyText(*actions) : std::nullopt;
    if (!narrow || actions->size() < static_cast<std::size_t>(count)) {
        ST_TRACE(mgsFlow, 2,
                 L"VXPolicyEnforcementImpl::enforceCategoryAndSiteRatingPolicy - Issue with gathering Action Bit\n");
        return false;
    }
    categories.checksumText = std::to_string(categories.enabled) + *narrow;
    categories.actions.assign(actions->begin(), actions->begin() + count);
    return true;
}

/// The codes as the policy lists them; empty ones vanish. Of a list that was cut the last piece is not taken: half a
/// code may be another category's.
std::vector<std::wstring> codesOf(const SectionsHandle& policy, const PolicySetting& setting) {
    constexpr const wchar_t* key = L"uiContentBitCodes";
    auto listed = detail::policyText(policy, setting, kContentSection, key).value_or(L"");
    if (std::wstring whole; policy.getPropValue(setting, kContentSection, key, whole) && listed.size() < whole.size() &&
                            whole[listed.size()] != L',') {
        listed.resize(listed.rfind(L',') + 1);
    }
    std::vector<std::wstring> codes;
    boost::algorithm::split(codes, listed, [](wchar_t c) { return c == L','; });
    std::erase(codes, L"");
    return codes;
}

/// The category codes. @return false when the policy has not one for each category.
bool gatherCodes(const SectionsHandle& policy, const PolicySetting& setting, int count, Categories& categories) {
    categories.codes = codesOf(policy, setting);
    bool isWhole = categories.codes.size() >= static_cast<std::size_t>(count);
    for (const std::wstring& code : categories.codes) {
        const auto narrow = detail::narrowPolicyText(code);
        isWhole = isWhole && narrow.has_value();
        categories.checksumText += narrow.value_or("");
    }
    if (!isWhole) {
        ST_TRACE(mgsFlow, 2,
                 L"VXPolicyEnforcementImpl::enforceCategoryAndSiteRatingPolicy - Issue with gathering Category Code\n");
    }
    return isWhole;
}

/// The list is stored with every policy that gets here; the checksum only records what it was.
void storeCategories(int count, Categories& categories) {
    preferences().setCategoryBlockDetails(categories.enabled, count, categories.actions, categories.codes,
                                          categories.uncategorized);
    preferences().signalPrefChange(ST_CATEGORY_BLOCK_LIST);
    const std::uint8_t checksum = detail::checksumOf(categories.checksumText);
    if (checksum != preferences().getCategoryBlockListChecksum()) {
        ST_TRACE(mgsFlow, 2,
                 L"VXPolicyEnforcementImpl::enforceCategoryAndSiteRatingPolicy - Category Block List changed, updating "
                 L"configuration\n");
        preferences().setCategoryBlockListChecksum(checksum);
    }
}

bool enforceCategories(const SectionsHandle& policy, const PolicySetting& setting) {
    const auto enabled = detail::policyInteger(policy, setting, kContentSection, L"bEnableCategorization");
    if (!enabled) {
        return false;
    }
    if (*enabled == -1) {
        return true;
    }
    const auto count = detail::policyInteger(policy, setting, kContentSection, L"uiBitCount");
    if (!count) {
        ST_TRACE(mgsFlow, 2, L"VXPolicyEnforcementImpl::enforceCategoryAndSiteRatingPolicy - No Category Present \n");
        LogMsg(kDebugSeverity, "VXPolicyEnforcementImpl::enforceCategoryAndSiteRatingPolicy - No Category Present ");
        return false;
    }
    Categories categories;
    categories.enabled = *enabled;
    if (const auto uncategorized = detail::policyInteger(policy, setting, kContentSection, L"uiActionUncategorized")) {
        categories.uncategorized = *uncategorized;
        ST_TRACE(mgsFlow, 2,
                 L"VXPolicyEnforcementImpl::enforceCategoryAndSiteRatingPolicy - UnCategorized Block Val - %d \n",
                 *uncategorized);
    }
    if (!gatherActions(policy, setting, *count, categories) || !gatherCodes(policy, setting, *count, categories)) {
        return false;
    }
    storeCategories(*count, categories);
    return true;
}

/// One rating's three bits of the packed actions. What is neither of the two patterns has the rating's own default.
struct Rating {
    const char* name;
    unsigned mask;
    unsigned pattern;
    int action;
    unsigned otherPattern;
    int otherAction;
    int byDefault;
    int (STPreferenceController::*get)();
    int (STPreferenceController::*set)(int value);

    int actionOf(unsigned packed) const {
        const unsigned field = packed & mask;
        return field == pattern ? action : field == otherPattern ? otherAction : byDefault;
    }
};

constexpr int kAllow = 1;
constexpr int kWarn = 2;
constexpr int kBlock = 3;

constexpr std::array<Rating, 3> kRatings{{
    {"YELLOW_SITE", 0x007, 0x001, kAllow, 0x004, kBlock, kWarn, &STPreferenceController::getYellowSiteAction,
     &STPreferenceController::setYellowSiteAction},
    {"RED_SITE", 0x038, 0x008, kAllow, 0x010, kWarn, kBlock, &STPreferenceController::getRedSiteAction,
     &STPreferenceController::setRedSiteAction},
    {"UNVERIFIED_SITE", 0x1C0, 0x040, kAllow, 0x100, kBlock, kWarn, &STPreferenceController::getUnratedSiteAction,
     &STPreferenceController::setUnratedSiteAction},
}};

bool enforceRatings(const SectionsHandle& policy, const PolicySetting& setting) {
    const auto packed = detail::policyInteger(policy, setting, L"RatingActions", L"uiOverall");
    if (!packed) {
        return false;
    }
    ST_TRACE(mgsFlow, 5, L"Sentrel Site Rating Action = %d\n", *packed);
    if (*packed == 0) {
        return true;
    }
    bool isChanged = false;
    for (const Rating& rating : kRatings) {
        const int action = rating.actionOf(static_cast<unsigned>(*packed));
        if ((preferences().*rating.get)() != action) {
            ST_TRACE(mgsFlow, 3, L"VXPolicyEnforcementImpl::enforceCategoryAndSiteRatingPolicy - Action for %s is %d\n",
                     rating.name, action);
            (preferences().*rating.set)(action);
            isChanged = true;
        }
    }
    if (isChanged) {
        ST_TRACE(mgsFlow, 3, L"Signalling a Preference Change\n");
        preferences().signalPrefChange(ST_RED_SITE_ACTION);
    }
    return true;
}

} // namespace

bool VXPolicyEnforcementImpl::enforceCategoryAndSiteRatingPolicy(const SectionsHandle& policy) {
    LogMsg(kDebugSeverity, "VXPolicyEnforcementImpl::enforceCategoryAndSiteRatingPolicy() - Entered");
    ST_TRACE(mgsFlow, 2, L"VXPolicyEnforcementImpl::enforceCategoryAndSiteRatingPolicy - Entered\n");
    const PolicySetting setting = detail::featureSetting(L"KPF_ContentFiltering");
    const bool result = enforceCategories(policy, setting) && enforceRatings(policy, setting);
    ST_TRACE(mgsFlow, 5, L"VXPolicyEnforcementImpl::enforceCategoryAndSiteRatingPolicy - exiting\n");
    return result;
}

} // namespace Sentrel
