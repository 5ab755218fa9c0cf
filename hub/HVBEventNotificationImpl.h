// The receiver of the hub events that this module subscribed to.
#pragma once

#include "hub/HVBInterfaces.h"

/// Receives the subscribed hub events. No event changes anything yet: the preferences that they would set come later.
/// Threads: broker threads. Owner: VXController::main, which deletes it after the hub connection has ended.
class HVBEventNotificationImpl : public HVB::EventInterface {
public:
    /// Registers with the broker, which exists from here on.
    HVBEventNotificationImpl();

    /// Always true.
    bool handleEventNotification(HVB::EventData& event) override;
};
