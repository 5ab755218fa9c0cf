// The limits of the client library, each with its reason. What both sides of the hub share is in HubProtocol.h.
#pragma once

#include <chrono>
#include <cstddef>

namespace HVB::detail {

/// Callbacks at the same time. One that waits for another module must not hold up the rest.
inline constexpr std::size_t kCallbackThreads = 4;

/// Calls, and events, that wait for a callback thread. A sender beyond that gets an error at once.
inline constexpr std::size_t kMaxWaitingJobs = 256;

/// Bytes of messages that wait, so that those who may only read cannot make a module hold much. One message is
/// always taken.
inline constexpr std::size_t kMaxWaitingBytes = std::size_t{32} << 20U;

/// Connections kept for the next send. More are made when more threads send at once.
inline constexpr std::size_t kMaxIdleConnections = 4;

/// Pause between attempts to reach the hub again: short at first, since a bus that restarts is back in no time.
inline constexpr std::chrono::milliseconds kFirstReconnectPause{50};
inline constexpr std::chrono::milliseconds kLastReconnectPause{2000};

/// Longest text in an error reply, in bytes.
inline constexpr std::size_t kMaxErrorText = 1024;

} // namespace HVB::detail
