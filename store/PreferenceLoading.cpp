// How the controller comes to life: its values from the settings file, the logging switch from the hub's configuration.
// A settings file that is missing or damaged leaves the defaults; the hub's configuration must be there.
//
// Each value is read by itself, so one that is missing or of another type leaves only its own default. Loading happens
// in the constructor, once: a scalar that another program writes later counts from the next start on.
#include "base/Paths.h"
#include "base/Singleton.h"
#include "daemon/Trace.h"
#include "hub/Exceptions.h"
#include "platform/hvbutils/LibXmlWrapper.h"
#include "store/PreferenceFile.h"
#include "store/STPreferenceController.h"

#include <string_view>
#include <utility>

namespace Sentrel {

STPreferenceController* STPreferenceController::m_pSelf = nullptr;
boost::mutex STPreferenceController::m_instanceMutex;

namespace {

/// The values in the settings file, read one by one.
class StoredValues {
public:
    explicit StoredValues(CVXDBSettings& settings) : m_settings(settings) {}

    /// On unless the file says off.
    bool onByDefault(const char* key) {
        int value = 0;
        return !detail::readNumber(m_settings, key, value) || value != 0;
    }

    /// Off unless the file says on.
    bool offByDefault(const char* key) {
        int value = 0;
        return detail::readNumber(m_settings, key, value) && value != 0;
    }

    int number(const char* key, int byDefault) {
        int value = 0;
        return detail::readNumber(m_settings, key, value) ? value : byDefault;
    }

    unsigned char checksum(const char* key) { return static_cast<unsigned char>(number(key, '0')); }

private:
    CVXDBSettings& m_settings;
};

void reportNoPathOfLoading() {
    ST_TRACE(configFlow, 1, L"STPreferenceController::loadPrefenceDataFromDB - Error while getting DB handle\n");
    detail::printLine("Preferences error while getting DB path ");
}

void reportNoHandleOfLoading() {
    ST_TRACE(configFlow, 1, L"STPreferenceController::setEnableSentrel - Error while getting DB handle\n");
    detail::printLine("Preferences error while getting DB handle ");
}

} // namespace

STPreferenceController* STPreferenceController::getInstance() {
    return instanceOf(m_pSelf, m_instanceMutex, [] { return new STPreferenceController; });
}

void STPreferenceController::releaseInstance() {
    releaseInstanceOf(m_pSelf, m_instanceMutex);
}

STPreferenceController::STPreferenceController() {
    loadPreferenceData();
}

STPreferenceController::~STPreferenceController() = default;

void STPreferenceController::loadPreferenceData() {
    ST_TRACE(configFlow, 2, L"STPreferenceController::loadPreferenceData - entered\n");
    loadPrefenceDataFromDB();
    loadPrefenceDataFromConfigFile();
}

void STPreferenceController::loadPrefenceDataFromDB() {
    ST_TRACE(configFlow, 2, L"STPreferenceController::loadPrefenceDataFromDB - entered\n");
    try {
        const auto settings = detail::openSettings(reportNoPathOfLoading, reportNoHandleOfLoading);
        if (settings != nullptr) {
            loadScalars(*settings);
            loadLists(*settings);
        }
    } catch (...) {
        detail::printLine("Unknown exception file loading preference from DB");
    }
}

void STPreferenceController::loadScalars(CVXDBSettings& settings) {
    StoredValues stored(settings);
    m_bEnabled = stored.onByDefault("Enabled");
    m_bSafeSearch = stored.offByDefault("SSOn");
    m_redSiteAction = stored.number("RedSiteAction", m_redSiteAction);
    m_yellowSiteAction = stored.number("YellowSiteAction", m_yellowSiteAction);
    m_unratedSiteAction = stored.number("UnverifiedSiteAction", m_unratedSiteAction);
    m_unverifiedAction = stored.number("GenPolicyUnverifiedAction", m_unverifiedAction);
    m_bCategoryBlocking = stored.onByDefault("CAT_Enabled");
    m_bAllowOverBlock = stored.offByDefault("ALLOW_OVER_Block");
    m_bBlockPhishing = stored.onByDefault("GenPolicyBlockPhishingAction");
    m_bRpxUnReachableAction = stored.offByDefault("GenPolicyRPXUnReachableAction");
    m_privateIpChecksum = stored.checksum("PrivateIPRangeChecksum");
    m_allowBlockListChecksum = stored.checksum("AllowBlockListChecksum");
    m_categoryBlockListChecksum = stored.checksum("CategoryBlockListChecksum");
    m_bLogGreenSites = stored.offByDefault("GenPolicyLogGreenSiteAction");
    m_bLogAllowSites = stored.offByDefault("GenPolicyLogAllowSiteAction");
}

/// Requires that the precedence is loaded: it decides the order of the allow/block list.
void STPreferenceController::loadLists(CVXDBSettings& settings) {
    AllowBlockDetails urls;
    if (settings.GetAllRows(TABLE_ALLOW_BLOCK, urls, m_bAllowOverBlock)) {
        replaceAllowBlockDetails(std::move(urls));
    }
    CVXDBSettings::Rows categories;
    if (!settings.GetAllRows(TABLE_CATEGORY_BLOCKING, categories, false)) {
        ST_TRACE(configFlow, 1,
                 L"STPreferenceController::loadPrefenceDataFromDB found no category blocking data in DB\n");
        return;
    }
    ST_TRACE(configFlow, 1, L"STPreferenceController::loadPrefenceDataFromDB found category blocking data in DB\n");
    takeCategoryRows(categories);
}

void STPreferenceController::loadPrefenceDataFromConfigFile() {
    ST_TRACE(configFlow, 2, L"STPreferenceController::loadPrefenceDataFromConfigFile - entered\n");
    m_bDebugLogging = false;
    try {
        LibXmlWrapper configuration(paths::moduleConfiguration());
        if (!configuration.getXPathBoolValue("/HVConfiguration/SyslogEnable")) {
            return;
        }
        const std::string level = configuration.getXPathStringValue("/HVConfiguration/LogLevel");
        for (const std::string_view loud : {"debug", "verbose", "audit", "alert"}) {
            if (level == loud) {
                m_bDebugLogging = true;
            }
        }
    } catch (...) {
        ST_TRACE(configFlow, 1,
                 L"STPreferenceController::loadPrefenceDataFromConfigFile-Got exception while reading log level "
                 L"information from HVConfig.xml\n");
        constexpr int unreadable = 3;
        throw HVB::HVBException(unreadable, "Reading log level information from HVConfig.xml failed");
    }
}

} // namespace Sentrel
