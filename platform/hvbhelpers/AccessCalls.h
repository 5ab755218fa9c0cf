// Asking the hub for access to a page that is blocked, and answering those who ask: the calls, and what they bring.
#pragma once

#include "platform/hvbhelpers/BusConnection.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace HVB::bus {

enum class RequestState { Open, Granted, Denied };

/// The word for a state on the bus: "open", "granted", "denied".
const char* stateWord(RequestState state);

/// What a user asked for, and what became of it. Times are microseconds since the epoch.
/// Threads: a plain value. Owner: the holder.
struct AccessRequest {
    std::uint64_t id = 0;
    std::uint32_t user = 0; ///< as the bus told it
    std::int64_t askedAt = 0;
    std::string url;    ///< UTF-8, as the user's program gave it
    std::string reason; ///< UTF-8, the user's words
    RequestState state = RequestState::Open;
    std::int64_t answeredAt = 0; ///< 0: not yet
    std::string answer;          ///< the entry that was granted, or why it was denied
    std::int64_t until = 0;      ///< of a granted one: its end, which may have passed; 0: for good

    bool operator==(const AccessRequest&) const = default;
};

/// An entry in the list that is there because somebody asked. Threads: a plain value. Owner: the holder.
struct AccessGrant {
    std::uint64_t id = 0;
    std::uint64_t request = 0;
    std::uint32_t user = 0; ///< who asked
    std::string entry;
    std::int64_t grantedAt = 0;
    std::int64_t until = 0; ///< 0: for good
    bool isEnding = false;  ///< it is over, and its entry is being taken out

    bool operator==(const AccessGrant&) const = default;
};

// Each sends one call, or for a list as many as it takes, and waits. @throws HVBException as call does; CallError with
// the name kErrorRequestRefused has a text for the user.

/// @return the id of the request: of the one that is open, when this user has asked for this URL before.
std::uint64_t askForAccess(sd_bus& bus, std::string_view url, std::string_view reason, Deadline deadline);
/// What this process's user has asked for, in ascending order of the ids.
std::vector<AccessRequest> readOwnRequests(sd_bus& bus, Deadline deadline);

// For root and the administrators.

/// What all users have asked for.
std::vector<AccessRequest> readRequests(sd_bus& bus, Deadline deadline);
/// Has the hub enter @p entry as allowed. @param seconds how long it stays; 0: for good.
/// @return the grant's id and its end alone.
AccessGrant grantRequest(sd_bus& bus, std::uint64_t request, const std::string& entry, std::uint64_t seconds,
                         Deadline deadline);
void denyRequest(sd_bus& bus, std::uint64_t request, std::string_view why, Deadline deadline);
std::vector<AccessGrant> readGrants(sd_bus& bus, Deadline deadline);
/// Has the hub take the grant's entry out, or give it back what it was before.
void revokeGrant(sd_bus& bus, std::uint64_t grant, Deadline deadline);

// For the hub. @throws HVBException when the message does not take it.
void append(sd_bus_message& reply, const AccessRequest& request);
void append(sd_bus_message& reply, const AccessGrant& grant);

} // namespace HVB::bus
