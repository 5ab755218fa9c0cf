// sd-event and sd-bus handles with owners.
#pragma once

#include "platform/hvbhelpers/BusConnection.h"

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <memory>

namespace HVB::bus {

struct UnrefEvent {
    void operator()(sd_event* event) const noexcept { sd_event_unref(event); }
};
struct DropSource {
    void operator()(sd_event_source* source) const noexcept { sd_event_source_disable_unref(source); }
};
struct DropSlot {
    void operator()(sd_bus_slot* slot) const noexcept { sd_bus_slot_unref(slot); }
};

/// The loop. Threads: the main thread's. Owner: the program.
using EventPtr = std::unique_ptr<sd_event, UnrefEvent>;
/// A source of the loop; its callback does not run any more once this is gone. Threads: as the loop. Owner: the holder.
using SourcePtr = std::unique_ptr<sd_event_source, DropSource>;
/// A registration on a connection; its callback does not run any more once this is gone. Threads: as the connection.
/// Owner: the holder.
using SlotPtr = std::unique_ptr<sd_bus_slot, DropSlot>;

/// The loop of a service: SIGTERM and SIGINT end it with code 0, SIGHUP waits for receiveHangups, and SIGPIPE, SIGUSR1
/// and SIGUSR2 do nothing. It serves the service manager's watchdog.
/// Requires that no other thread runs yet, since it blocks signals for all of them.
/// @throws HVBException
EventPtr newServiceLoop();

/// Has the loop of newServiceLoop call @p handler at each SIGHUP, also at one that came before. It must not throw.
/// @throws HVBException
SourcePtr receiveHangups(sd_event& event, sd_event_signal_handler_t handler, void* userdata);

} // namespace HVB::bus
