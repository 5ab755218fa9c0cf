// The proxy that the hub publishes, on its way into the settings file. The browser side reads it there; this process
// does not use it.
#include "daemon/Trace.h"
#include "store/PreferenceFile.h"
#include "store/STPreferenceController.h"

namespace Sentrel {
namespace {

constexpr const char* kSetter = "setRpxProxySettings";

/// The password too: whoever may read the trace log may know it.
void traceEntry(const char* host, const char* user, const char* password, int port, int type, int httpAuth) {
    ST_TRACE(configFlow, 3, L"%s:: host: %s\n", kSetter, trace::printable(host).c_str());
    ST_TRACE(configFlow, 3, L"%s:: uname: %s\n", kSetter, trace::printable(user).c_str());
    ST_TRACE(configFlow, 3, L"%s:: pass: %s\n", kSetter, trace::printable(password).c_str());
    ST_TRACE(configFlow, 3, L"%s:: port: %d\n", kSetter, port);
    ST_TRACE(configFlow, 3, L"%s:: type: %d\n", kSetter, type);
    ST_TRACE(configFlow, 3, L"%s:: httpAuth: %d\n", kSetter, httpAuth);
}

void reportNoPathOfProxy() {
    ST_TRACE(configFlow, 1, L"Error while getting DB Path\n");
}

void reportNoHandleOfProxy() {
    ST_TRACE(configFlow, 1, L"STPreferenceController::%s - Error while getting DB handle\n", kSetter);
}

/// A text is stored without its terminator; an empty one is refused.
bool store(CVXDBSettings& settings, const char* key, const char* text) {
    return settings.Set(key, detail::keyLength(key), text, std::strlen(text), TABLE_GENERAL_SETTING);
}

bool store(CVXDBSettings& settings, const char* key, int number) {
    return detail::storeNumber(settings, key, number);
}

/// Stores one field, and takes it into memory when that succeeded.
template <class Member, class Value>
bool update(CVXDBSettings& settings, const char* key, Member& member, Value value, const char* word) {
    if (!store(settings, key, value)) {
        ST_TRACE(configFlow, 1, L"STPreferenceController::%s - Error while updating %s in DB\n", kSetter, word);
        return false;
    }
    member = value;
    ST_TRACE(configFlow, 3, L"STPreferenceController::%s - Successfully updated %s in DB\n", kSetter, word);
    return true;
}

} // namespace

// Both sides of the file know these names. The order of the writes decides what is stored when one of them fails.
int STPreferenceController::setRpxProxySettings(const char* host, const char* user, const char* password, int port,
                                                int type, int httpAuth) {
    return detail::guarded(kSetter, [&]() -> int {
        traceEntry(host, user, password, port, type, httpAuth);
        if (m_proxyHost == host && m_proxyUser == user && m_proxyPassword == password && m_proxyPort == port &&
            m_proxyType == type && m_httpAuth == httpAuth) {
            ST_TRACE(configFlow, 3, L"STPreferenceController::%s - duplicate proxy settings\n", kSetter);
            return ST_ERROR_NONE;
        }
        const auto settings = detail::openSettings(reportNoPathOfProxy, reportNoHandleOfProxy);
        const bool isStored = settings != nullptr && update(*settings, "RPXProxyHost", m_proxyHost, host, "host") &&
                              update(*settings, "HttpAuthUname", m_proxyUser, user, "uname") &&
                              update(*settings, "HttpAuthPass", m_proxyPassword, password, "pass") &&
                              update(*settings, "RPXProxyPort", m_proxyPort, port, "port") &&
                              update(*settings, "RPXProxyType", m_proxyType, type, "type") &&
                              update(*settings, "EnableHttpAuth", m_httpAuth, httpAuth, "httpAuthEnable");
        return isStored ? ST_ERROR_NONE : ST_ERROR_DATABASE;
    });
}

} // namespace Sentrel
