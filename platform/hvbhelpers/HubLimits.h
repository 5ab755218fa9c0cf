// The limits of the client library, each with its reason. What both sides of the hub share is in HubProtocol.h.
#pragma once

#include "platform/hvbhelpers/FairQueue.h"

#include <chrono>
#include <cstddef>

namespace HVB::detail {

/// A lane of the callback threads. A sender beyond the bounds gets an error at once.
struct LaneLimits {
    std::size_t threads;
    FairQueue::Bounds bounds; ///< jobs, bytes, and jobs at the same time, each of one user
};

inline constexpr std::size_t kKiB = std::size_t{1} << 10U;

/// One thread keeps the order. Few may send events.
inline constexpr LaneLimits kEventLane{1, {256, 8192 * kKiB, 1}};
/// The hub asks once a minute, an administrator may ask too.
inline constexpr LaneLimits kHealthLane{1, {16, 0, 1}};
/// One thread: of two lists that are replaced at once, one is there in the end and not a mixture.
inline constexpr LaneLimits kChangesLane{1, {256, 32768 * kKiB, 1}};
/// A call that waits for another module must not hold up the rest.
inline constexpr LaneLimits kAdministratorsLane{3, {256, 32768 * kKiB, 3}};
/// Everybody's: a user has one of the two threads at the most, and what waits is little, since who reads sends little.
inline constexpr LaneLimits kUsersLane{2, {64, 256 * kKiB, 1}};

/// Calls whose sender's user the bus has not told yet. One user's connections cannot use them up.
inline constexpr std::size_t kMaxUnknownCalls = 1024;
inline constexpr std::size_t kMaxUnknownCallsOfConnection = 8;
/// Bytes of these.
inline constexpr std::size_t kMaxUnknownBytes = 8192 * kKiB;
/// Connections whose user is remembered; the one that was asked about first is forgotten first.
inline constexpr std::size_t kMaxKnownSenders = 1024;

/// Connections kept for the next send. More are made when more threads send at once.
inline constexpr std::size_t kMaxIdleConnections = 4;

/// Pause between attempts to reach the hub again: short at first, since a bus that restarts is back in no time.
inline constexpr std::chrono::milliseconds kFirstReconnectPause{50};
inline constexpr std::chrono::milliseconds kLastReconnectPause{2000};

/// How long a start waits for the spool that another process of the module has yet to give up, and how often it looks.
/// Longer than that process may need for a call to a hub that does not answer.
inline constexpr std::chrono::milliseconds kSpoolPatience{2000};
inline constexpr std::chrono::milliseconds kSpoolPause{10};

/// Longest text in an error reply, in bytes.
inline constexpr std::size_t kMaxErrorText = 1024;

} // namespace HVB::detail
