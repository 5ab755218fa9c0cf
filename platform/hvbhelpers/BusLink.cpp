// A connection that comes back. What was lost is noticed by the bus's own farewell, and a timer of the loop tries
// again.
//
// What must stay so:
// - The name is asked for before the first call is answered, so nobody is served under no name.
// - A name that another process has is not queued for: the program says so and goes on trying.
// - A connection is told as lost before it is freed, since what was made on it must go first.
#include "platform/hvbhelpers/BusLink.h"

#include "platform/hvbhelpers/HubLimits.h"
#include "platform/hvbhelpers/HubProtocol.h"

#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <exception>
#include <utility>

namespace HVB::bus {
namespace {

/// How long one try to reach the bus may hold up the loop.
constexpr std::chrono::milliseconds kConnectTimeout{1000};

} // namespace

BusLink::BusLink(sd_event& event, std::string socketPath, Service service, Users users)
    : m_event(event), m_socketPath(std::move(socketPath)), m_service(std::move(service)), m_users(std::move(users)) {}

BusLink::~BusLink() {
    dropConnection();
}

void BusLink::takeName(sd_bus& bus) const {
    const int result = sd_bus_request_name(&bus, m_service.busName.c_str(), 0);
    if (result == -EEXIST) {
        throw HVBException(result, "another process is " + m_service.what + " already");
    }
    if (result == -EACCES || result == -EPERM) {
        throw HVBException(-EACCES, "the bus does not let this user be " + m_service.what);
    }
    check(result, "cannot take the name " + m_service.busName);
}

void BusLink::connect() {
    m_bus = openBus(m_socketPath, std::chrono::steady_clock::now() + kConnectTimeout);
    try {
        serve(*m_bus);
    } catch (...) {
        dropConnection();
        throw;
    }
}

void BusLink::connectSoon() {
    m_pause = detail::kFirstReconnectPause;
    retryAfter(std::chrono::milliseconds(0));
}

void BusLink::serve(sd_bus& bus) {
    const auto timeout = static_cast<std::uint64_t>(std::chrono::microseconds(kCallTimeout).count());
    check(sd_bus_set_method_call_timeout(&bus, timeout), "cannot set a deadline");
    sd_bus_slot* slot = nullptr;
    // This signal is the connection's own and never travels.
    check(sd_bus_match_signal(&bus, &slot, "org.freedesktop.DBus.Local", "/org/freedesktop/DBus/Local",
                              "org.freedesktop.DBus.Local", "Disconnected", onDisconnected, this),
          "cannot watch the connection");
    m_disconnected.reset(slot);
    m_users.connected(bus);
    takeName(bus);
    check(sd_bus_attach_event(&bus, &m_event, SD_EVENT_PRIORITY_NORMAL), "cannot serve the connection");
}

/// Runs the body of a callback. What it throws is a line in the system log.
template <class Body>
int BusLink::guarded(Body&& body) noexcept {
    try {
        body();
    } catch (const HVBException& failed) {
        logFailure(failed.message().c_str());
    } catch (const std::exception& failed) {
        logFailure(failed.what());
    }
    return 0;
}

void BusLink::logFailure(const char* why) noexcept {
    try {
        m_users.tell(LOG_ERR, std::string("reconnecting to the bus failed: ") + why);
    } catch (...) {
        // Not even the line could be made. Nothing is left to do.
    }
}

int BusLink::onDisconnected(sd_bus_message* /*message*/, void* self, sd_bus_error* /*error*/) {
    auto& link = *static_cast<BusLink*>(self);
    return link.guarded([&] {
        link.m_users.tell(LOG_WARNING, "the bus at " + link.m_socketPath + " went away; " + link.m_service.program +
                                           " tries to reach it again");
        link.m_wasLost = true;
        // The timer gives the connection up: here it is still dispatching.
        link.connectSoon();
    });
}

void BusLink::retryAfter(std::chrono::milliseconds pause) {
    constexpr std::uint64_t accuracy = 1; // microsecond: asked for because 0 means a quarter of a second
    sd_event_source* source = nullptr;
    const auto wait = static_cast<std::uint64_t>(std::chrono::microseconds(pause).count());
    check(sd_event_add_time_relative(&m_event, &source, CLOCK_BOOTTIME, wait, accuracy, onRetry, this),
          "cannot set a timer");
    m_retry.reset(source);
}

int BusLink::onRetry(sd_event_source* /*source*/, std::uint64_t /*usec*/, void* self) {
    auto& link = *static_cast<BusLink*>(self);
    return link.guarded([&] { link.retry(); });
}

void BusLink::retry() {
    dropConnection();
    // The timer is set before the attempt, so that another one follows however this one fails.
    retryAfter(m_pause);
    m_pause = std::min(m_pause * 2, detail::kLastReconnectPause);
    try {
        connect();
    } catch (const HVBException& error) {
        tellRefusal(error);
        return; // the next try is set
    }
    m_retry.reset();
    m_told.clear();
    if (std::exchange(m_wasLost, false)) {
        m_users.tell(LOG_NOTICE, "the bus at " + m_socketPath + " is back");
    }
}

void BusLink::tellRefusal(const HVBException& error) {
    if ((error.code() == -EACCES || error.code() == -EEXIST) && error.message() != m_told) {
        m_told = error.message();
        m_users.tell(LOG_WARNING, m_told + "; " + m_service.program + " tries again");
    }
}

void BusLink::dropConnection() noexcept {
    if (m_bus == nullptr) {
        return;
    }
    m_users.lost();
    m_disconnected.reset();
    sd_bus_detach_event(m_bus.get());
    m_bus.reset();
}

void BusLink::end() noexcept {
    m_retry.reset();
    if (m_bus != nullptr) {
        // Nobody is left to tell when this fails; the senders find out by the connection's end.
        static_cast<void>(sd_bus_release_name(m_bus.get(), m_service.busName.c_str()));
        static_cast<void>(sd_bus_flush(m_bus.get()));
    }
    dropConnection();
}

} // namespace HVB::bus
