#include "hub/HVBEventNotificationImpl.h"

#include "base/Paths.h"
#include "daemon/VXControllerDaemon.h"
#include "hub/HVBCommBroker.h"
#include "hub/Payloads.h"

#include <map>
#include <vector>

HVBEventNotificationImpl::HVBEventNotificationImpl() {
    HVB::HVBCommBroker::getInstance(Sentrel::paths::hubSocket())->setEventInterface(this);
}

bool HVBEventNotificationImpl::handleEventNotification(HVB::EventData& event) {
    // The payload is read from a copy: its archive is at the first value, also when somebody has read the event before.
    if (event.m_eventId == Sentrel::EVT_DEBUG_LOG_CHANGE) {
        HVB::EventData copy(event);
        std::map<int, bool> statusByModule;
        copy.readPayload(statusByModule);
        Sentrel::VXController::getInstance()->handleDebugLogEventData(statusByModule);
    } else if (event.m_eventId == Sentrel::EVT_PROXY_SETTINGS_CHANGE) {
        HVB::EventData copy(event);
        std::vector<proxySettings> proxies;
        copy.readPayload(proxies);
        Sentrel::VXController::getInstance()->handleProxySettingsEventData(proxies);
    }
    return true;
}
