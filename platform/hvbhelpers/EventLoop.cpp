#include "platform/hvbhelpers/EventLoop.h"

#include "base/SignalSet.h"

#include <cerrno>
#include <csignal>

namespace HVB::bus {

EventPtr newServiceLoop() {
    check(Sentrel::SignalSet{SIGTERM, SIGINT, SIGHUP}.block() ? 0 : -EINVAL, "cannot block the signals of a service");
    // A peer that hangs up must be an error code and not end the process; the other two mean nothing to a service.
    for (const int signal : {SIGPIPE, SIGUSR1, SIGUSR2}) {
        std::signal(signal, SIG_IGN);
    }
    sd_event* event = nullptr;
    check(sd_event_new(&event), "cannot make the event loop");
    EventPtr loop(event);
    // Without a handler these leave the loop with code 0.
    check(sd_event_add_signal(event, nullptr, SIGTERM, nullptr, nullptr), "cannot receive SIGTERM");
    check(sd_event_add_signal(event, nullptr, SIGINT, nullptr, nullptr), "cannot receive SIGINT");
    check(sd_event_set_watchdog(event, 1), "cannot serve the service manager's watchdog");
    return loop;
}

SourcePtr receiveHangups(sd_event& event, sd_event_signal_handler_t handler, void* userdata) {
    sd_event_source* source = nullptr;
    check(sd_event_add_signal(&event, &source, SIGHUP, handler, userdata), "cannot receive SIGHUP");
    return SourcePtr(source);
}

} // namespace HVB::bus
