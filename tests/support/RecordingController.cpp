#include "tests/support/RecordingController.h"

#include "store/STPreferenceController.h"
#include "tests/support/FreshStart.h"

namespace testing_support {

PreferenceRecording& PreferenceRecording::instance() {
    return freshForEachTest<PreferenceRecording>();
}

namespace {

int recorded(const std::string& operation, const std::string& arguments) {
    PreferenceRecording& recording = PreferenceRecording::instance();
    recording.calls.push_back(operation + arguments);
    if (recording.before) {
        recording.before(operation);
    }
    const auto result = recording.results.find(operation);
    return result != recording.results.end() ? result->second : static_cast<int>(Sentrel::ST_ERROR_NONE);
}

int recorded(const char* operation, int value) {
    return recorded(std::string(operation), " " + std::to_string(value));
}

template <class Entries>
std::string listed(const Entries& entries) {
    std::string text;
    for (const auto& [name, action] : entries) {
        text.append(" ").append(name).append("=").append(std::to_string(action));
    }
    return text;
}

const Sentrel::STPreferences& values() {
    PreferenceRecording& recording = PreferenceRecording::instance();
    if (recording.before) {
        recording.before("get");
    }
    return recording.values;
}

} // namespace
} // namespace testing_support

namespace Sentrel {

using testing_support::listed;
using testing_support::recorded;
using testing_support::values;

STPreferenceController* STPreferenceController::m_pSelf = nullptr;
boost::mutex STPreferenceController::m_instanceMutex;

STPreferenceController::STPreferenceController() = default;
STPreferenceController::~STPreferenceController() = default;

STPreferenceController* STPreferenceController::getInstance() {
    if (testing_support::PreferenceRecording::instance().before) {
        testing_support::PreferenceRecording::instance().before("getInstance");
    }
    if (m_pSelf == nullptr) {
        m_pSelf = new STPreferenceController;
        [[maybe_unused]] static const bool registered = (testing_support::startEachTestWith(releaseInstance), true);
    }
    return m_pSelf;
}

void STPreferenceController::releaseInstance() {
    delete m_pSelf;
    m_pSelf = nullptr;
}

int STPreferenceController::setEnableSentrel(bool value) {
    return recorded("setEnableSentrel", value ? 1 : 0);
}
int STPreferenceController::setEnableSafeSearch(bool value) {
    return recorded("setEnableSafeSearch", value ? 1 : 0);
}
int STPreferenceController::setRedSiteAction(int value) {
    return recorded("setRedSiteAction", value);
}
int STPreferenceController::setYellowSiteAction(int value) {
    return recorded("setYellowSiteAction", value);
}
int STPreferenceController::setUnratedSiteAction(int value) {
    return recorded("setUnratedSiteAction", value);
}
int STPreferenceController::setSTUnVerifiedAction(int value) {
    return recorded("setSTUnVerifiedAction", value);
}
int STPreferenceController::setEnableCategoryBlocking(bool value) {
    return recorded("setEnableCategoryBlocking", value ? 1 : 0);
}
int STPreferenceController::setAllowOverBlockPrecedenceStatus(bool value) {
    return recorded("setAllowOverBlockPrecedenceStatus", value ? 1 : 0);
}
int STPreferenceController::setAllowBlockDetails(AllowBlockDetails& details) {
    return recorded(std::string("setAllowBlockDetails"), listed(details));
}
int STPreferenceController::setCategoryBlockDetails(std::map<std::string, int>& categories) {
    return recorded(std::string("setCategoryBlockDetails"), listed(categories));
}

int STPreferenceController::setLogGREENSitesStatus(bool value) {
    return recorded("setLogGREENSitesStatus", value ? 1 : 0);
}
int STPreferenceController::setLogAllowSiteStatus(bool value) {
    return recorded("setLogAllowSiteStatus", value ? 1 : 0);
}
int STPreferenceController::setBlockPhishingStatus(bool value) {
    return recorded("setBlockPhishingStatus", value ? 1 : 0);
}
int STPreferenceController::setRPXUnReachableAction(bool value) {
    return recorded("setRPXUnReachableAction", value ? 1 : 0);
}
int STPreferenceController::setPrivateIpChecksum(unsigned char value) {
    m_privateIpChecksum = value;
    return recorded("setPrivateIpChecksum", value);
}
int STPreferenceController::setAllowBlockListChecksum(unsigned char value) {
    m_allowBlockListChecksum = value;
    return recorded("setAllowBlockListChecksum", value);
}
int STPreferenceController::setCategoryBlockListChecksum(unsigned char value) {
    m_categoryBlockListChecksum = value;
    return recorded("setCategoryBlockListChecksum", value);
}
// NOLINTNEXTLINE(performance-unnecessary-value-param): the interface has it so
int STPreferenceController::setPrivateIPRange(std::list<std::string> ranges) {
    testing_support::PreferenceRecording::instance().handed.ranges = ranges;
    std::string arguments;
    for (const std::string& range : ranges) {
        arguments += " " + range;
    }
    return recorded(std::string("setPrivateIPRange"), arguments);
}
int STPreferenceController::setCategoryBlockDetails(int enabled, int count, std::vector<wchar_t>& actions,
                                                    std::vector<std::wstring>& names, int nonCategoryBlocked) {
    testing_support::PreferenceRecording::instance().handed.categories = {enabled, count, actions, names,
                                                                          nonCategoryBlocked};
    std::string arguments = " " + std::to_string(enabled) + " " + std::to_string(count) + " ";
    arguments.append(actions.begin(), actions.end()).append(" ");
    for (const std::wstring& name : names) {
        arguments.append(&name == names.data() ? "" : ",").append(name.begin(), name.end());
    }
    return recorded(std::string("setCategoryBlockDetails"), arguments + " " + std::to_string(nonCategoryBlocked));
}
int STPreferenceController::setAllowBlockDetails(int precedence, std::vector<std::wstring>& urls,
                                                 std::vector<int>& actions) {
    testing_support::PreferenceRecording::instance().handed.sites = {precedence, urls, actions};
    std::string arguments = " " + std::to_string(precedence);
    for (const std::wstring& url : urls) {
        arguments.append(" ").append(url.begin(), url.end());
    }
    for (const int action : actions) {
        arguments += " " + std::to_string(action);
    }
    return recorded(std::string("setAllowBlockDetails"), arguments);
}

bool STPreferenceController::getEnableSentrel() {
    return values().m_bEnable;
}
bool STPreferenceController::getEnableSafeSearch() {
    return values().m_bSafeSearch;
}
int STPreferenceController::getRedSiteAction() {
    return values().m_redSiteAction;
}
int STPreferenceController::getYellowSiteAction() {
    return values().m_yellowSiteAction;
}
int STPreferenceController::getUnratedSiteAction() {
    return values().m_unratedSiteAction;
}
int STPreferenceController::getSTUnVerifiedAction() {
    return values().m_unverifiedAction;
}
bool STPreferenceController::getEnableCategoryBlocking() {
    return values().m_bCategoryBlocking;
}
bool STPreferenceController::getAllowOverBlockPrecedenceStatus() {
    return values().m_bAllowOverBlock;
}
int STPreferenceController::getAllowBlockDetails(AllowBlockDetails& out) {
    out = values().m_allowBlockDetails;
    return ST_ERROR_NONE;
}
int STPreferenceController::getCategoryBlockDetails(std::map<std::string, int>& out) {
    out = values().m_categoryBlockDetails;
    return ST_ERROR_NONE;
}

bool STPreferenceController::getDebugLoggingStatus() {
    static_cast<void>(values()); // fails as the other getters do
    return testing_support::PreferenceRecording::instance().debugLogging;
}
bool STPreferenceController::setDebugLoggingStatus(bool status) {
    return recorded("setDebugLoggingStatus", status ? 1 : 0) == ST_ERROR_NONE;
}
bool STPreferenceController::isChangingDebugLogging() {
    return false;
}
int STPreferenceController::setRpxProxySettings(const char* host, const char* user, const char* password, int port,
                                                int type, int httpAuth) {
    return recorded(std::string("setRpxProxySettings"), std::string(" ") + host + " " + user + " " + password + " " +
                                                            std::to_string(port) + " " + std::to_string(type) + " " +
                                                            std::to_string(httpAuth));
}

void STPreferenceController::signalPrefChange(STPrefType type) {
    recorded("signalPrefChange", type);
}

} // namespace Sentrel
