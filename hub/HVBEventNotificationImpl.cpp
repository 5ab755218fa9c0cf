#include "hub/HVBEventNotificationImpl.h"

#include "daemon/Paths.h"
#include "hub/HVBCommBroker.h"

HVBEventNotificationImpl::HVBEventNotificationImpl() {
    HVB::HVBCommBroker::getInstance(Sentrel::paths::hubSocket())->setEventInterface(this);
}

bool HVBEventNotificationImpl::handleEventNotification(HVB::EventData& /*event*/) {
    return true;
}
