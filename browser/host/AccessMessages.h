// What a user asks an administrator for by way of the browser, and what came of it.
#pragma once

#include <cstdint>
#include <string>

namespace Sentrel::host {

/// Asks for access to a page, or only what came of asking. Threads: a plain value. Owner: the holder.
struct AccessQuestion {
    std::uint64_t id = 0; ///< of the browser's message
    std::string url;      ///< as the hub keeps it
    std::string reason;
    bool isAsking = false; ///< false: it only looks
};

/// The user's last request for one page. Times are microseconds since the epoch, 0: none.
/// Threads: a plain value. Owner: the holder.
struct LastRequest {
    std::uint64_t number = 0; ///< 0: there is none
    std::string state;        ///< "open", "granted", "denied"
    std::int64_t askedAt = 0;
    std::int64_t answeredAt = 0;
    std::string answer;
    std::int64_t until = 0; ///< of a granted one; 0: for good
};

enum class AccessOutcome {
    Asked,   ///< there is a new request
    Known,   ///< one is open already
    Told,    ///< nothing was asked for
    Refused, ///< it cannot be asked for so
    Away,    ///< nobody could be asked
};

/// Threads: a plain value. Owner: the holder.
struct AccessAnswer {
    std::uint64_t id = 0; ///< the question's
    AccessOutcome outcome = AccessOutcome::Away;
    std::string url;          ///< what is asked for; empty: nothing was
    std::uint64_t number = 0; ///< of the request that is open; 0: none
    std::string because;      ///< why it is refused or away, a sentence for the user
    LastRequest last{};       ///< the one before
};

} // namespace Sentrel::host
