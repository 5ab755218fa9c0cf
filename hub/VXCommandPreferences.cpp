// The commands that work on the preferences as a whole.
#include "daemon/Trace.h"
#include "hub/CommandReply.h"
#include "hub/STPreferences.h"
#include "hub/VXCommandImpl.h"

#include <functional>
#include <initializer_list>
#include <vector>

namespace Sentrel {
namespace {

/// The results of a run of setters, in their order.
using Codes = std::vector<int>;

/// Calls the setters in their order. One that fails does not stop the run; an exception does, and what was set stays.
Codes runSetters(const char* handler, std::initializer_list<std::function<int()>> setters) {
    Codes codes;
    try {
        for (const std::function<int()>& setter : setters) {
            codes.push_back(setter());
        }
    } catch (const VXException& exception) {
        ST_TRACE(stCmdFlow, 1, L"VXCommandImpl::%s - Caught exception %s\n", handler,
                 trace::printable(exception.message()).c_str());
        codes.push_back(exception.code());
    } catch (...) {
        ST_TRACE(stCmdFlow, 1, L"CommandImpl::%s - - Caught generic exception \n", handler);
        codes.push_back(ST_ERROR_GENERIC);
    }
    return codes;
}

/// One code for all: the last failure, but the unknown exception wins over whatever comes after it.
int overallCode(const Codes& codes) {
    int result = ST_ERROR_NONE;
    for (const int code : codes) {
        if (code != ST_ERROR_NONE) {
            result = code;
        }
        if (code == ST_ERROR_GENERIC) {
            break;
        }
    }
    return result;
}

} // namespace

void VXCommandImpl::handleGetPrefs(HVB::CommandData& data) {
    ST_TRACE(stCmdFlow, 2, L"VXCommandImpl::handleGetPrefs- Entered\n");
    STPreferences snapshot;
    snapshot.m_bEnable = preferences().getEnableSentrel();
    snapshot.m_bSafeSearch = preferences().getEnableSafeSearch();
    snapshot.m_redSiteAction = preferences().getRedSiteAction();
    snapshot.m_yellowSiteAction = preferences().getYellowSiteAction();
    snapshot.m_unratedSiteAction = preferences().getUnratedSiteAction();
    snapshot.m_bCategoryBlocking = preferences().getEnableCategoryBlocking();
    AllowBlockDetails urls;
    preferences().getAllowBlockDetails(urls);
    snapshot.setAllowBlockDetails(urls);
    snapshot.m_bAllowOverBlock = preferences().getAllowOverBlockPrecedenceStatus();
    preferences().getCategoryBlockDetails(snapshot.m_categoryBlockDetails);
    snapshot.m_unverifiedAction = preferences().getSTUnVerifiedAction();
    detail::replyWith(data, snapshot);
    ST_TRACE(stCmdFlow, 3, L"VXCommandImpl::handleGetPrefs - Sent response through HVBCommBroker\n");
}

void VXCommandImpl::handleSetPrefs(HVB::CommandData& data) {
    ST_TRACE(stCmdFlow, 2, L"VXCommandImpl::handleSetPrefs- Entered\n");
    STPreferences wanted; // its defaults are what a command without a payload sets
    data.readPayload(wanted);
    // The lists and the precedence are not this command's, whatever the payload holds.
    const Codes codes = runSetters(
        "handleSetPrefs", {
                              [&] { return preferences().setEnableSentrel(wanted.m_bEnable); },
                              [&] { return preferences().setEnableSafeSearch(wanted.m_bSafeSearch); },
                              [&] { return preferences().setRedSiteAction(wanted.m_redSiteAction); },
                              [&] { return preferences().setYellowSiteAction(wanted.m_yellowSiteAction); },
                              [&] { return preferences().setUnratedSiteAction(wanted.m_unratedSiteAction); },
                              [&] { return preferences().setEnableCategoryBlocking(wanted.m_bCategoryBlocking); },
                              [&] { return preferences().setSTUnVerifiedAction(wanted.m_unverifiedAction); },
                          });
    detail::replyWith(data, overallCode(codes));
    ST_TRACE(stCmdFlow, 3, L"VXCommandImpl::handleSetPrefs - Sent response through HVBCommBroker\n");
    ST_TRACE(stCmdFlow, 5, L"signalPrefChange called from VXCommandImpl::handleSetPrefs()\n");
    preferences().signalPrefChange(ST_ALL_PREFERENCES);
}

void VXCommandImpl::handleResetPrefs(HVB::CommandData& data) {
    ST_TRACE(stCmdFlow, 2, L"VXCommandImpl::handleResetPrefs- Entered\n");
    const STPreferences defaults;
    AllowBlockDetails none;
    const Codes codes =
        runSetters("handleResetPrefs",
                   {
                       [&] { return preferences().setEnableSentrel(defaults.m_bEnable); },
                       [&] { return preferences().setEnableSafeSearch(defaults.m_bSafeSearch); },
                       [&] { return preferences().setRedSiteAction(defaults.m_redSiteAction); },
                       [&] { return preferences().setYellowSiteAction(defaults.m_yellowSiteAction); },
                       [&] { return preferences().setUnratedSiteAction(defaults.m_unratedSiteAction); },
                       [&] { return preferences().setEnableCategoryBlocking(defaults.m_bCategoryBlocking); },
                       [&] { return preferences().setAllowBlockDetails(none); },
                       [&] { return preferences().setAllowOverBlockPrecedenceStatus(defaults.m_bAllowOverBlock); },
                   });
    detail::replyWith(data, overallCode(codes));
    ST_TRACE(stCmdFlow, 2, L"VXCommandImpl::handleResetPrefs - Sent response through HVBCommBroker\n");
    ST_TRACE(stCmdFlow, 2, L"signalPrefChange called from VXCommandImpl::handleResetPrefs()\n");
    preferences().signalPrefChange(ST_ALL_PREFERENCES);
}

} // namespace Sentrel
