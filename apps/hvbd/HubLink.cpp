#include "apps/hvbd/HubLink.h"

#include "apps/hvbd/CallbackGuard.h"
#include "apps/hvbd/HvbdLimits.h"

#include <algorithm>
#include <ctime>
#include <utility>

namespace HVB::hub {
namespace {

constexpr const char* kReconnecting = "reconnecting to the bus";

void takeName(sd_bus& bus) {
    const int result = sd_bus_request_name(&bus, bus::kHubName, 0);
    if (result == -EEXIST) {
        throw HVBException(result, "another process is the hub already");
    }
    if (result == -EACCES || result == -EPERM) {
        throw HVBException(-EACCES, "the bus does not let this user be the hub");
    }
    bus::check(result, "cannot take the hub's name");
}

} // namespace

HubLink::HubLink(sd_event& event, std::string socketPath, Users users, const SystemLog& log)
    : m_event(event), m_socketPath(std::move(socketPath)), m_users(std::move(users)), m_log(log) {}

HubLink::~HubLink() {
    dropConnection();
}

void HubLink::connect() {
    m_bus = bus::openBus(m_socketPath, std::chrono::steady_clock::now() + kConnectTimeout);
    try {
        serve(*m_bus);
    } catch (...) {
        dropConnection();
        throw;
    }
}

void HubLink::serve(sd_bus& bus) {
    const auto timeout = static_cast<std::uint64_t>(std::chrono::microseconds(bus::kCallTimeout).count());
    bus::check(sd_bus_set_method_call_timeout(&bus, timeout), "cannot set a deadline");
    sd_bus_slot* slot = nullptr;
    // This signal is the connection's own and never travels.
    bus::check(sd_bus_match_signal(&bus, &slot, "org.freedesktop.DBus.Local", "/org/freedesktop/DBus/Local",
                                   "org.freedesktop.DBus.Local", "Disconnected", onDisconnected, this),
               "cannot watch the connection");
    m_disconnected.reset(slot);
    m_users.connected(bus);
    takeName(bus);
    bus::check(sd_bus_attach_event(&bus, &m_event, SD_EVENT_PRIORITY_NORMAL), "cannot serve the connection");
}

int HubLink::onDisconnected(sd_bus_message* /*message*/, void* self, sd_bus_error* /*error*/) {
    auto& link = *static_cast<HubLink*>(self);
    return logAndIgnore(link.m_log, kReconnecting, [&] {
        link.m_log.write(LOG_WARNING, "the bus at " + link.m_socketPath + " went away; hvbd tries to reach it again");
        link.m_pause = kFirstReconnectPause;
        // The timer gives the connection up: here it is still dispatching.
        link.retryAfter(std::chrono::milliseconds(0));
    });
}

void HubLink::retryAfter(std::chrono::milliseconds pause) {
    constexpr std::uint64_t accuracy = 1; // microsecond: asked for because 0 means a quarter of a second
    sd_event_source* source = nullptr;
    const auto wait = static_cast<std::uint64_t>(std::chrono::microseconds(pause).count());
    bus::check(sd_event_add_time_relative(&m_event, &source, CLOCK_BOOTTIME, wait, accuracy, onRetry, this),
               "cannot set a timer");
    m_retry.reset(source);
}

int HubLink::onRetry(sd_event_source* /*source*/, std::uint64_t /*usec*/, void* self) {
    auto& link = *static_cast<HubLink*>(self);
    return logAndIgnore(link.m_log, kReconnecting, [&] { link.retry(); });
}

void HubLink::retry() {
    dropConnection();
    // The timer is set before the attempt, so that another one follows however this one fails.
    retryAfter(m_pause);
    m_pause = std::min(m_pause * 2, kLastReconnectPause);
    try {
        connect();
    } catch (const HVBException&) {
        return; // the next try is set
    }
    m_retry.reset();
    m_log.write(LOG_NOTICE, "the bus at " + m_socketPath + " is back");
}

void HubLink::dropConnection() noexcept {
    if (m_bus == nullptr) {
        return;
    }
    m_users.lost();
    m_disconnected.reset();
    sd_bus_detach_event(m_bus.get());
    m_bus.reset();
}

void HubLink::end() noexcept {
    m_retry.reset();
    if (m_bus != nullptr) {
        // Nobody is left to tell when this fails; the senders find out by the connection's end.
        static_cast<void>(sd_bus_release_name(m_bus.get(), bus::kHubName));
        static_cast<void>(sd_bus_flush(m_bus.get()));
    }
    dropConnection();
}

} // namespace HVB::hub
