// The receiver of the hub events that this module subscribed to.
#pragma once

#include "hub/HVBInterfaces.h"

/// Receives the subscribed hub events and hands what they carry to the process's controller. Other events, and one
/// without a payload, change nothing.
/// Threads: broker threads, one at a time. Owner: VXController::main, which deletes it after the hub connection has
/// ended.
class HVBEventNotificationImpl : public HVB::EventInterface {
public:
    /// Registers with the broker, which exists from here on.
    HVBEventNotificationImpl();

    /// Always true.
    /// @throws boost::archive::archive_exception when the payload cannot be read; nothing was changed then.
    bool handleEventNotification(HVB::EventData& event) override;
};
