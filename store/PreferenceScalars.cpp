// The fifteen scalar setters are one mechanism: each names its member, its key, its name in the trace lines and its
// shape. They differ in words, in levels and in what a refused write means. The shapes hold these differences.
// Operators search for the words.
//
// The order must stay: a setter that gets the current value returns at once and does not open the file. Otherwise it
// writes the file, and then memory, if the file has taken the value. The site actions are the exception: memory takes
// them whatever the file did (kShapeD).
#include "daemon/Trace.h"
#include "store/PreferenceFile.h"
#include "store/STPreferenceController.h"

namespace Sentrel {
namespace {

using Self = STPreferenceController;

/// The defaults are those of the plain shape; the others say only where they differ.
struct Shape {
    const char* duplicate = "Duplicate Preference Value so returning "; ///< of a value that is the current one
    int successLevel = 3;                                               ///< of the lines about success
    bool saysReturn = true;                                             ///< whether returning success has a line
    bool announcesChange = false;                                       ///< whether a line says that the value differs
    bool weighsWrite = true;        ///< a refused write is an error and leaves memory as it is
    bool printsPathFirst = false;   ///< standard output gets the line about the path before the trace log
    bool printsHandleFirst = false; ///< and that about the handle
    const char* pathPrefix = ""; ///< of the trace line of a missing path; the setter's name follows unless it is empty
    const char* pathTrace = "Error while getting DB Path";
    const char* pathPrint = "Error while getting DB Path"; ///< null: nothing
    const char* handlePrint = "Preference error while getting DB handle";
};

constexpr Shape kShapeA{};
constexpr Shape kShapeA2{.duplicate = "Same Preference Value so returning "};
constexpr Shape kShapeB{.saysReturn = false, .pathPrint = nullptr, .handlePrint = nullptr};
constexpr Shape kShapeC{.duplicate = "Preference Already Set",
                        .successLevel = 5,
                        .announcesChange = true,
                        .printsPathFirst = true,
                        .pathPrefix = "STPreferenceController::",
                        .pathTrace = ":: Error while getting DB Path",
                        .pathPrint = "Preferences error while getting DB path ",
                        .handlePrint = "Preferences error while getting DB handle "};
constexpr Shape kShapeD{.duplicate = "Preference Already Set",
                        .successLevel = 5,
                        .weighsWrite = false,
                        .printsPathFirst = true,
                        .printsHandleFirst = true,
                        .pathPrefix = "STPreferenceController::",
                        .pathTrace = " - Error while getting user DB Path",
                        .pathPrint = "Preferences error while getting DB path ",
                        .handlePrint = "Preferences error while getting DB handle "};

void traceEntry(const char* setter, bool value) {
    ST_TRACE(configFlow, 2, L"STPreferenceController::%s - entered with value %s\n", setter, value ? "true" : "false");
}

void traceEntry(const char* setter, int value) {
    ST_TRACE(configFlow, 2, L"STPreferenceController::%s - entered with value %d\n", setter, value);
}

void print(const char* text) {
    if (text != nullptr) {
        detail::printLine(text);
    }
}

void reportNoPath(const Shape& shape, const char* setter) {
    if (shape.printsPathFirst) {
        print(shape.pathPrint);
    }
    const char* name = *shape.pathPrefix != '\0' ? setter : "";
    ST_TRACE(configFlow, 1, L"%s%s%s\n", shape.pathPrefix, name, shape.pathTrace);
    if (!shape.printsPathFirst) {
        print(shape.pathPrint);
    }
}

void reportNoHandle(const Shape& shape, const char* setter) {
    if (shape.printsHandleFirst) {
        print(shape.handlePrint);
    }
    ST_TRACE(configFlow, 1, L"STPreferenceController::%s - Error while getting DB handle\n", setter);
    if (!shape.printsHandleFirst) {
        print(shape.handlePrint);
    }
}

int succeeded(const Shape& shape, const char* setter) {
    if (shape.saysReturn) {
        ST_TRACE(configFlow, shape.successLevel, L"STPreferenceController::%s - returning success\n", setter);
    }
    return ST_ERROR_NONE;
}

/// Writes the value. @return false when that failed and counts.
bool write(CVXDBSettings& settings, const Shape& shape, const char* setter, const char* key, int value) {
    const bool isStored = detail::storeNumber(settings, key, value);
    if (!shape.weighsWrite) {
        return true; // memory and file part company until the next start: settled, and known to the clients
    }
    if (isStored) {
        ST_TRACE(configFlow, shape.successLevel, L"STPreferenceController::%s - Successfully updated value in DB\n",
                 setter);
    } else {
        ST_TRACE(configFlow, 1, L"STPreferenceController::%s - Error while updating value in DB\n", setter);
    }
    return isStored;
}

} // namespace

template <class Value>
struct STPreferenceController::Scalar {
    std::atomic<Value> STPreferenceController::*member;
    const char* key;
    const char* setter; ///< its name in the trace lines
    const Shape& shape;
    const char* duplicateSetter = setter; ///< its name in the line about an unchanged value
};

template <class Value>
int STPreferenceController::setScalar(const Scalar<Value>& scalar, Value value) {
    const Shape& shape = scalar.shape;
    traceEntry(scalar.setter, value);
    return detail::guarded(scalar.setter, [&]() -> int {
        if (this->*scalar.member == value) {
            ST_TRACE(configFlow, 5, L"STPreferenceController::%s - %s\n", scalar.duplicateSetter, shape.duplicate);
            return succeeded(shape, scalar.setter);
        }
        if (shape.announcesChange) {
            ST_TRACE(configFlow, 5, L"STPreferenceController::%s - entered\n", scalar.setter);
        }
        auto settings = detail::openSettings([&] { reportNoPath(shape, scalar.setter); },
                                             [&] { reportNoHandle(shape, scalar.setter); });
        if (settings == nullptr || !write(*settings, shape, scalar.setter, scalar.key, static_cast<int>(value))) {
            return ST_ERROR_DATABASE;
        }
        this->*scalar.member = value;
        settings.reset();
        return succeeded(shape, scalar.setter);
    });
}

int STPreferenceController::setEnableSentrel(bool value) {
    return setScalar<bool>({&Self::m_bEnabled, "Enabled", "setEnableSentrel", kShapeA}, value);
}

int STPreferenceController::setLogGREENSitesStatus(bool value) {
    return setScalar<bool>({&Self::m_bLogGreenSites, "GenPolicyLogGreenSiteAction", "setGREENSitesStatus", kShapeA2},
                           value);
}

int STPreferenceController::setLogAllowSiteStatus(bool value) {
    return setScalar<bool>({&Self::m_bLogAllowSites, "GenPolicyLogAllowSiteAction", "setLogAllowSiteStatus", kShapeA2},
                           value);
}

int STPreferenceController::setBlockPhishingStatus(bool value) {
    return setScalar<bool>(
        {&Self::m_bBlockPhishing, "GenPolicyBlockPhishingAction", "setBlockPhishingStatus", kShapeA2}, value);
}

int STPreferenceController::setRPXUnReachableAction(bool value) {
    return setScalar<bool>(
        {&Self::m_bRpxUnReachableAction, "GenPolicyRPXUnReachableAction", "setRPXUnReachableAction", kShapeA2}, value);
}

int STPreferenceController::setPrivateIpChecksum(unsigned char value) {
    return setScalar<unsigned char>(
        {&Self::m_privateIpChecksum, "PrivateIPRangeChecksum", "setPrivateIpChecksum", kShapeA2}, value);
}

int STPreferenceController::setAllowBlockListChecksum(unsigned char value) {
    return setScalar<unsigned char>(
        {&Self::m_allowBlockListChecksum, "AllowBlockListChecksum", "setAllowBlockListChecksum", kShapeA2}, value);
}

int STPreferenceController::setCategoryBlockListChecksum(unsigned char value) {
    return setScalar<unsigned char>(
        {&Self::m_categoryBlockListChecksum, "CategoryBlockListChecksum", "setCategoryBlockListChecksum", kShapeA2},
        value);
}

int STPreferenceController::setEnableCategoryBlocking(bool value) {
    return setScalar<bool>({&Self::m_bCategoryBlocking, "CAT_Enabled", "setEnableCategoryBlocking", kShapeA}, value);
}

int STPreferenceController::setAllowOverBlockPrecedenceStatus(bool value) {
    return setScalar<bool>({&Self::m_bAllowOverBlock, "ALLOW_OVER_Block", "setAllowOverBlockPrecedenceStatus", kShapeA},
                           value);
}

int STPreferenceController::setSTUnVerifiedAction(int value) {
    return setScalar<int>({&Self::m_unverifiedAction, "GenPolicyUnverifiedAction", "setSTUnVerifiedAction", kShapeB},
                          value);
}

int STPreferenceController::setEnableSafeSearch(bool value) {
    return setScalar<bool>({&Self::m_bSafeSearch, "SSOn", "setEnableSafeSearch", kShapeC}, value);
}

int STPreferenceController::setRedSiteAction(int value) {
    return setScalar<int>({&Self::m_redSiteAction, "RedSiteAction", "setRedSiteAction", kShapeD, "setEnableSentrel"},
                          value);
}

int STPreferenceController::setYellowSiteAction(int value) {
    return setScalar<int>({&Self::m_yellowSiteAction, "YellowSiteAction", "setYellowSiteAction", kShapeD}, value);
}

int STPreferenceController::setUnratedSiteAction(int value) {
    return setScalar<int>({&Self::m_unratedSiteAction, "UnverifiedSiteAction", "setUnratedSiteAction", kShapeD}, value);
}

namespace {

bool traced(const char* getter, bool value) {
    ST_TRACE(configFlow, 3, L"STPreferenceController::%s - Returning %s\n", getter, value ? "true" : "false");
    return value;
}

int traced(const char* getter, int value) {
    ST_TRACE(configFlow, 2, L"STPreferenceController::%s - Returning %d\n", getter, value);
    return value;
}

void traceEntered(const char* getter) {
    ST_TRACE(configFlow, 2, L"STPreferenceController::%s - entered\n", getter);
}

} // namespace

bool STPreferenceController::getEnableSentrel() {
    traceEntered("getEnableSentrel");
    return traced("getEnableSentrel", m_bEnabled);
}

bool STPreferenceController::getBlockPhishingStatus() {
    traceEntered("getBlockPhishingStatus");
    return traced("getBlockPhishingStatus", m_bBlockPhishing);
}

bool STPreferenceController::getRPXUnReachableAction() {
    traceEntered("getRPXUnReachableAction");
    return traced("getRPXUnReachableAction", m_bRpxUnReachableAction);
}

bool STPreferenceController::getEnableSafeSearch() {
    traceEntered("getEnableSafeSearch");
    return traced("getEnableSafeSearch", m_bSafeSearch);
}

int STPreferenceController::getSTUnVerifiedAction() {
    traceEntered("getSTUnVerifiedAction");
    return m_unverifiedAction;
}

int STPreferenceController::getRedSiteAction() {
    return traced("getRedSiteAction", m_redSiteAction);
}

int STPreferenceController::getYellowSiteAction() {
    return traced("getYellowSiteAction", m_yellowSiteAction);
}

int STPreferenceController::getUnratedSiteAction() {
    return traced("getUnratedSiteAction", m_unratedSiteAction);
}

bool STPreferenceController::getEnableCategoryBlocking() {
    return traced("getEnableCategoryBlocking", m_bCategoryBlocking);
}

bool STPreferenceController::getAllowOverBlockPrecedenceStatus() {
    return traced("getAllowOverBlockPrecedenceStatus", m_bAllowOverBlock);
}

bool STPreferenceController::getDebugLoggingStatus() {
    const bool isOn = m_bDebugLogging;
    ST_TRACE(configFlow, 2, L"STPreferenceController::getDebugLoggingStatus - Returning %s\n", isOn ? "ON" : "OFF");
    return isOn;
}

} // namespace Sentrel
