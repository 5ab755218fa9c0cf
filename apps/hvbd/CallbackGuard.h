// Keeps exceptions out of the C callbacks of sd-bus and sd-event.
#pragma once

#include "apps/hvbd/LogStore.h"
#include "apps/hvbd/SystemLog.h"
#include "hub/Exceptions.h"
#include "platform/hvbhelpers/HubProtocol.h"

#include <systemd/sd-bus.h>

#include <cerrno>
#include <exception>
#include <stdexcept>
#include <string>

namespace HVB::hub {

/// What a sender did wrong. Answered with HVB::bus::kErrorBadMessage.
class BadMessage : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;

    std::string message() const { return what(); }
};

/// Runs the body of a method call's handler. What it throws becomes the error reply.
/// @return what a handler returns to sd-bus.
template <class Body>
int replyWithErrors(sd_bus_error* error, Body&& body) noexcept {
    try {
        body();
        return 1;
    } catch (const BadMessage& bad) {
        return sd_bus_error_set(error, bus::kErrorBadMessage, bad.what());
    } catch (const LogStoreError& failed) {
        const bool isForGood = failed.kind() == LogStoreError::Kind::Refused;
        return sd_bus_error_set(error, isForGood ? bus::kErrorLogRefused : bus::kErrorLogStore, failed.what());
    } catch (const HVBException& failed) {
        const char* name = failed.code() == -EBADMSG ? bus::kErrorBadMessage : bus::kErrorFailed;
        return sd_bus_error_set(error, name, failed.message().c_str());
    } catch (const std::exception& failed) {
        return sd_bus_error_set(error, bus::kErrorFailed, failed.what());
    } catch (...) {
        return sd_bus_error_set(error, bus::kErrorFailed, "hvbd failed for an unknown reason");
    }
}

/// Runs the body of any other callback. What it throws is a line in the system log, and the source stays alive.
template <class Body>
int logAndIgnore(const SystemLog& log, const char* doing, Body&& body) noexcept {
    const auto tell = [&](const std::string& why) { log.write(LOG_ERR, std::string(doing) + " failed: " + why); };
    try {
        try {
            body();
        } catch (const HVBException& failed) {
            tell(failed.message());
        } catch (const LogStoreError& failed) {
            tell(failed.message());
        } catch (const std::exception& failed) {
            tell(failed.what());
        }
    } catch (...) {
        // Not even the line could be made. Nothing is left to do.
        syslog(LOG_ERR, "%s failed", doing);
    }
    return 0;
}

} // namespace HVB::hub
