// The commands that read or change one preference. They are the only way for a client to change the two lists.
#include "daemon/Trace.h"
#include "hub/CommandReply.h"
#include "hub/STPreferences.h"
#include "hub/VXCommandImpl.h"

#include <array>

namespace Sentrel {
namespace {

using Controller = STPreferenceController;

/// How one preference gets into a snapshot and out of it.
struct Preference {
    void (*fill)(STPreferences& snapshot);
    int (*apply)(const STPreferences& snapshot);
};

template <auto Member, auto Get, auto Set>
constexpr Preference scalar() {
    return {[](STPreferences& snapshot) { snapshot.*Member = (preferences().*Get)(); },
            [](const STPreferences& snapshot) { return (preferences().*Set)(snapshot.*Member); }};
}

void fillAllowBlockList(STPreferences& snapshot) {
    ST_TRACE(stCmdFlow, 1, L"VXCommandImpl::handleGetPrefIndividual - Inside ST_ALLOW_BLOCK_LIST\n");
    AllowBlockDetails urls;
    preferences().getAllowBlockDetails(urls);
    ST_TRACE(stCmdFlow, 3, L"VXCommandImpl::handleGetPrefIndividual- URL Allow/Block Count - %lu\n", urls.size());
    snapshot.setAllowBlockDetails(urls);
}

int applyAllowBlockList(const STPreferences& snapshot) {
    ST_TRACE(stCmdFlow, 1, L"VXCommandImpl::handleSetPrefIndividual - Inside ST_ALLOW_BLOCK_LIST\n");
    AllowBlockDetails urls = snapshot.getAllowBlockDetails();
    return preferences().setAllowBlockDetails(urls);
}

void fillCategoryList(STPreferences& snapshot) {
    ST_TRACE(stCmdFlow, 1, L"VXCommandImpl::handleGetPrefIndividual - Inside ST_CATEGORY_BLOCK_LIST\n");
    CategoryBlockDetails categories;
    preferences().getCategoryBlockDetails(categories);
    ST_TRACE(stCmdFlow, 3, L"VXCommandImpl::handleGetPrefIndividual- Category Allow/Block Count - %lu\n",
             categories.size());
    snapshot.m_categoryBlockDetails = categories;
}

int applyCategoryList(const STPreferences& snapshot) {
    ST_TRACE(stCmdFlow, 1, L"VXCommandImpl::handleSetPrefIndividual - Inside ST_CATEGORY_BLOCK_LIST\n");
    CategoryBlockDetails categories = snapshot.m_categoryBlockDetails;
    // The line bears the other handler's name; people search for it that way.
    ST_TRACE(stCmdFlow, 3, L"VXCommandImpl::handleGetPrefIndividual- URL Allow/Block Count - %lu\n", categories.size());
    return preferences().setCategoryBlockDetails(categories);
}

/// By STPrefType. The types behind the last have no individual form.
constexpr std::array<Preference, 9> kPreferences{{
    scalar<&STPreferences::m_bEnable, &Controller::getEnableSentrel, &Controller::setEnableSentrel>(),
    scalar<&STPreferences::m_bSafeSearch, &Controller::getEnableSafeSearch, &Controller::setEnableSafeSearch>(),
    scalar<&STPreferences::m_redSiteAction, &Controller::getRedSiteAction, &Controller::setRedSiteAction>(),
    scalar<&STPreferences::m_yellowSiteAction, &Controller::getYellowSiteAction, &Controller::setYellowSiteAction>(),
    scalar<&STPreferences::m_unratedSiteAction, &Controller::getUnratedSiteAction, &Controller::setUnratedSiteAction>(),
    scalar<&STPreferences::m_unverifiedAction, &Controller::getSTUnVerifiedAction,
           &Controller::setSTUnVerifiedAction>(),
    scalar<&STPreferences::m_bCategoryBlocking, &Controller::getEnableCategoryBlocking,
           &Controller::setEnableCategoryBlocking>(),
    {fillAllowBlockList, applyAllowBlockList},
    {fillCategoryList, applyCategoryList},
}};

const Preference* preferenceOf(STPrefType type) {
    const auto index = static_cast<std::uint32_t>(type);
    return index < kPreferences.size() ? &kPreferences[index] : nullptr;
}

/// What came of a command that sets one preference.
struct Outcome {
    STPrefType type = ST_ALL_PREFERENCES;
    int code = ST_ERROR_INVALID_PREFERENCE;
};

void apply(const STPreferences& wanted, Outcome& outcome) {
    outcome.type = wanted.m_prefType;
    ST_TRACE(stCmdFlow, 3, L"PrefType is %d\n", static_cast<int>(outcome.type));
    const Preference* preference = preferenceOf(outcome.type);
    if (preference == nullptr) {
        ST_TRACE(stCmdFlow, 1, L"VXCommandImpl::handleSetPrefIndividual- Error Invalid Preference type found \n");
        return;
    }
    outcome.code = preference->apply(wanted);
}

Outcome setIndividual(HVB::CommandData& data) {
    Outcome outcome;
    try {
        STPreferences wanted;
        data.readPayload(wanted);
        if (data.m_pInArchive != nullptr && wanted.m_bIndividual) {
            apply(wanted, outcome);
        } else {
            ST_TRACE(stCmdFlow, 1, L"VXCommandImpl::handleSetPrefIndividual- Error Preference Indivisual Not Set \n");
        }
    } catch (const VXException& exception) {
        ST_TRACE(stCmdFlow, 1, L"VXCommandImpl::handleSetPrefIndividual - Caught exception %s\n",
                 trace::printable(exception.message()).c_str());
        outcome.code = exception.code();
    } catch (...) {
        ST_TRACE(stCmdFlow, 1, L"VXCommandImpl::handleSetPrefIndividual - - Caught generic exception \n");
        outcome.code = ST_ERROR_GENERIC;
    }
    return outcome;
}

} // namespace

void VXCommandImpl::handleGetPrefIndividual(HVB::CommandData& data) {
    ST_TRACE(stCmdFlow, 1, L"VXCommandImpl::handleGetPrefIndividual- Entered\n");
    STPreferences snapshot;
    int type = snapshot.m_prefType; // what stays without a payload is no type of this command
    data.readPayload(type);
    ST_TRACE(stCmdFlow, 1, L"VXCommandImpl::handleGetPrefIndividual- Recieved Preference Type %d\n", type);
    snapshot.m_prefType = static_cast<STPrefType>(type);
    snapshot.m_bIndividual = true;
    const Preference* preference = preferenceOf(snapshot.m_prefType);
    if (preference == nullptr) {
        ST_TRACE(stCmdFlow, 1, L"VXCommandImpl::handleGetPrefIndividual- Error Invalid Preference type found \n");
        HVB::CommandResult refusal;
        detail::reply(refusal, data, false);
        return;
    }
    preference->fill(snapshot);
    detail::replyWith(data, snapshot);
    // The line bears the other handler's name; people search for it that way.
    ST_TRACE(stCmdFlow, 1, L"VXCommandImpl::handleGetPrefs - Sent response through HVBCommBroker\n");
}

void VXCommandImpl::handleSetPrefIndividual(HVB::CommandData& data) {
    ST_TRACE(stCmdFlow, 1, L"VXCommandImpl::handleSetPrefIndividual- Entered\n");
    const Outcome outcome = setIndividual(data);
    detail::replyWith(data, outcome.code);
    ST_TRACE(stCmdFlow, 1, L"VXCommandImpl::handleSetPrefIndividual - Sent response through HVBCommBroker\n");
    if (outcome.code == ST_ERROR_NONE) {
        ST_TRACE(stCmdFlow, 2, L"signalPrefChange called from VXCommandImpl::handleSetPrefIndividual()\n");
        preferences().signalPrefChange(outcome.type);
    }
}

} // namespace Sentrel
