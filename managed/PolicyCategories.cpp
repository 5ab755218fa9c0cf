// The second pass of a policy: which categories are blocked, then what happens to yellow, red and unrated sites.
//
// Categories and ratings differ in how they are stored. The categories are one list: switch, count, actions and codes
// are all read first, and only when they serve together is the list replaced. The ratings are three preferences: each
// is set only when it differs from what is in force.
//
// What must stay so:
// - A missing key fails the pass, and then the third pass does not run. Only the action for uncategorized sites has a
//   default. Nothing is rolled back: categories that were stored before the ratings failed stay.
// - The category list is stored and signalled with every policy that gets so far. The checksum comes after that. It
//   records what the list was and never decides whether to store.
// - The ratings are signalled once, and only when one of the three changed.
// - The third rating feeds the action for unrated sites. The action for unverified sites is another preference, which
//   the general pass sets.
#include "daemon/Trace.h"
#include "managed/DocumentSource.h"
#include "managed/PolicyChecksum.h"
#include "managed/VXPolicyEnforcementImpl.h"
#include "platform/stlogger/STLogger.h"
#include "policy/PolicyLists.h"
#include "store/STPreferenceController.h"

#include <syslog.h>

namespace Sentrel {
namespace {

/// What the policy says of the categories.
struct Categories {
    int enabled = policy::kCategoriesStay;
    int uncategorized = policy::kUncategorizedByDefault;
    std::vector<wchar_t> actions;
    std::vector<std::wstring> codes;
    std::string checksumText; ///< switch, actions and codes, without separators
};

/// The action characters. @return false when the policy has not one for each category.
bool gatherActions(const policy::PolicySource& source, int count, Categories& categories) {
    const policy::CategoryActions read = count > 0 ? policy::readCategoryActions(source) : policy::CategoryActions();
    if (read.isThere && !read.narrow) {
        detail::traceTooLong();
    }
    if (!read.serve(count)) {
        ST_TRACE(mgsFlow, 2,
                 L"VXPolicyEnforcementImpl::enforceCategoryAndSiteRatingPolicy - Issue with gathering Action Bit\n");
        return false;
    }
    categories.checksumText = std::to_string(categories.enabled) + *read.narrow;
    categories.actions.assign(read.characters.begin(), read.characters.begin() + count);
    return true;
}

/// The category codes. @return false when the policy has not one for each category.
bool gatherCodes(const policy::PolicySource& source, int count, Categories& categories) {
    const policy::CategoryCodes read = policy::readCategoryCodes(source);
    for (const policy::TextEntry& code : read.codes) {
        if (!code.narrow) {
            detail::traceTooLong();
        }
        categories.checksumText += code.narrow.value_or("");
        categories.codes.push_back(code.text);
    }
    if (!read.serve(count)) {
        ST_TRACE(mgsFlow, 2,
                 L"VXPolicyEnforcementImpl::enforceCategoryAndSiteRatingPolicy - Issue with gathering Category Code\n");
    }
    return read.serve(count);
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

bool enforceCategories(const policy::PolicySource& source) {
    const auto enabled = source.number(policy::keys::kCategorize, 0);
    if (!enabled) {
        return false;
    }
    if (*enabled == policy::kCategoriesStay) {
        return true;
    }
    const auto count = source.number(policy::keys::kCategoryCount, 0);
    if (!count) {
        ST_TRACE(mgsFlow, 2, L"VXPolicyEnforcementImpl::enforceCategoryAndSiteRatingPolicy - No Category Present \n");
        LogMsg(LOG_DEBUG, "VXPolicyEnforcementImpl::enforceCategoryAndSiteRatingPolicy - No Category Present ");
        return false;
    }
    Categories categories;
    categories.enabled = *enabled;
    if (const auto uncategorized = source.number(policy::keys::kUncategorized, 0)) {
        categories.uncategorized = *uncategorized;
        ST_TRACE(mgsFlow, 2,
                 L"VXPolicyEnforcementImpl::enforceCategoryAndSiteRatingPolicy - UnCategorized Block Val - %d \n",
                 *uncategorized);
    }
    if (!gatherActions(source, *count, categories) || !gatherCodes(source, *count, categories)) {
        return false;
    }
    storeCategories(*count, categories);
    return true;
}

/// The preference behind a rating.
struct RatingPreference {
    const char* name;
    int (STPreferenceController::*get)();
    int (STPreferenceController::*set)(int value);
};

RatingPreference preferenceOf(policy::Rating rating) {
    switch (rating) {
    case policy::Rating::Yellow:
        return {"YELLOW_SITE", &STPreferenceController::getYellowSiteAction,
                &STPreferenceController::setYellowSiteAction};
    case policy::Rating::Red:
        return {"RED_SITE", &STPreferenceController::getRedSiteAction, &STPreferenceController::setRedSiteAction};
    default:
        return {"UNVERIFIED_SITE", &STPreferenceController::getUnratedSiteAction,
                &STPreferenceController::setUnratedSiteAction};
    }
}

bool enforceRatings(const policy::PolicySource& source) {
    const auto packed = source.number(policy::keys::kRatings, 0);
    if (!packed) {
        return false;
    }
    ST_TRACE(mgsFlow, 5, L"Sentrel Site Rating Action = %d\n", *packed);
    if (*packed == policy::kRatingsStay) {
        return true;
    }
    bool isChanged = false;
    for (const policy::RatingField& field : policy::kRatingFields) {
        const RatingPreference preference = preferenceOf(field.rating);
        const int action = static_cast<int>(field.actionOf(*packed));
        if ((preferences().*preference.get)() != action) {
            ST_TRACE(mgsFlow, 3, L"VXPolicyEnforcementImpl::enforceCategoryAndSiteRatingPolicy - Action for %s is %d\n",
                     preference.name, action);
            (preferences().*preference.set)(action);
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
    LogMsg(LOG_DEBUG, "VXPolicyEnforcementImpl::enforceCategoryAndSiteRatingPolicy() - Entered");
    ST_TRACE(mgsFlow, 2, L"VXPolicyEnforcementImpl::enforceCategoryAndSiteRatingPolicy - Entered\n");
    const detail::DocumentSource source(policy);
    const bool result = enforceCategories(source) && enforceRatings(source);
    ST_TRACE(mgsFlow, 5, L"VXPolicyEnforcementImpl::enforceCategoryAndSiteRatingPolicy - exiting\n");
    return result;
}

} // namespace Sentrel
