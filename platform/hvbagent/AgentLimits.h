// The limits of the agent library, each with its unit and reason.
#pragma once

#include "policy/PolicyLimits.h"

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace HVBEnterprise::agent {

// Policies. They come over the network, from whoever the broker lets publish. What bounds the document is the policy's.

using Sentrel::policy::kFirstEpoch;
using Sentrel::policy::kLastEpoch;
using Sentrel::policy::kMaxNameCharacters;
using Sentrel::policy::kMaxPolicyBytes;
using Sentrel::policy::kMaxPolicyGroups;
using Sentrel::policy::kMaxPolicyKeys;
using Sentrel::policy::kMaxValueBytes;

/// Bytes of a message that carries a document: base64 and a signature around it.
constexpr std::size_t messageBytesFor(std::size_t documentBytes) {
    return documentBytes / 3 * 4 + 4096;
}
inline constexpr std::size_t kMaxPolicyMessageBytes = messageBytesFor(kMaxPolicyBytes);
/// Objects around a value: document, "features", feature, section.
inline constexpr std::size_t kMaxPolicyDepth = 4;
/// Values of all kinds in a document: its keys and the objects around them.
inline constexpr std::size_t kMaxPolicyValues = kMaxPolicyKeys + kMaxPolicyGroups * (kMaxPolicyGroups + 2) + 16;

/// Policies that wait for their turn, together. Of each topic the last waits; what finds no room is asked for again.
inline constexpr std::size_t kMaxWaitingPolicyBytes = std::size_t{64} << 20U;
/// How long the choice waits for all that the broker retains, from a connection on, when the machine's own state does
/// not come back to it.
inline constexpr std::chrono::milliseconds kRetainedPatience{2000};

/// Pauses between two attempts to put a policy into force, which double from the first to the last.
inline constexpr std::chrono::seconds kFirstEnforcementPause{5};
inline constexpr std::chrono::seconds kLastEnforcementPause{600};
/// How often a machine whose hub is away looks whether it is back, to enforce at once.
inline constexpr std::chrono::milliseconds kHubLook{1000};

// Other documents.

/// Bytes of the configuration, of the credentials file and of the policy's record, and of a collect request.
inline constexpr std::size_t kMaxConfigurationBytes = std::size_t{64} << 10U;
inline constexpr std::size_t kMaxCollectBytes = 1024;
/// Nesting and values of those three.
inline constexpr std::size_t kMaxSmallDepth = 4;
inline constexpr std::size_t kMaxSmallValues = 256;
/// Bytes of a property document; a larger one is a defect of the module and is not sent.
inline constexpr std::size_t kMaxPropertyBytes = std::size_t{1} << 20U;
/// Nesting and values of what a machine publishes, as a tool takes it.
inline constexpr std::size_t kMaxMachineDepth = 6;
inline constexpr std::size_t kMaxMachineValues = 100'000;
/// Bytes of a user's name and of a password, of a host's name, and of a path.
inline constexpr std::size_t kMaxCredentialBytes = 1024;
inline constexpr std::size_t kMaxHostBytes = 253;
inline constexpr std::size_t kMaxPathBytes = 4096;
/// Public keys that a machine takes policies of: the old one and the new one, while they are changed.
inline constexpr std::size_t kMaxPolicyKeysOfSite = 2;
/// Groups that a machine is in.
inline constexpr std::size_t kMaxGroups = 32;
/// Characters of one level of a topic.
inline constexpr std::size_t kMaxTopicPart = 64;

/// Bytes of clear text in a secret box: what a browser component takes.
inline constexpr std::size_t kMaxClearText = 1024;
/// Bytes of a key file: base64 of 32 bytes, a newline, and enough to see that there is more.
inline constexpr std::size_t kMaxKeyFileBytes = 64;

/// Bytes of a log line, and of what a line quotes from outside.
inline constexpr std::size_t kMaxLogLine = 1024;
inline constexpr std::size_t kMaxQuoted = 200;

// Configurable values.

inline constexpr std::int64_t kDefaultInterval = 3600; // seconds
inline constexpr std::int64_t kMinInterval = 10;
inline constexpr std::int64_t kMaxInterval = 86'400;
inline constexpr std::int64_t kDefaultKeepalive = 60; // seconds
inline constexpr std::int64_t kMinKeepalive = 5;      // libmosquitto takes none below
inline constexpr std::int64_t kMaxKeepalive = 3600;

// The connection.

/// Pause before the next attempt to connect. The first is short, since a broker that restarts is soon back; they double
/// up to the last. Each is drawn between its half and its whole, so that a fleet does not come back at once.
inline constexpr std::chrono::milliseconds kFirstRetryPause{200};
inline constexpr std::chrono::milliseconds kLastRetryPause{60'000};
/// A connection that stood this long was good: the next pause is the first again.
inline constexpr std::chrono::milliseconds kSettledAfter{10'000};
/// From the start of an attempt to the broker's answer.
inline constexpr std::chrono::milliseconds kConnectPatience{20'000};
/// How often a TLS handshake is moved on. libmosquitto does not tell whether it wants to write then.
inline constexpr std::chrono::milliseconds kHandshakeTick{10};
/// The longest sleep of a standing connection, which libmosquitto wants to be looked at about once a second.
inline constexpr std::chrono::milliseconds kLoopTick{1000};
/// How long the broker has to take the last message, and how long a thread has to end. A thread that takes longer is
/// held up by the name service, and is left to end by itself.
inline constexpr std::chrono::milliseconds kFarewellPatience{500};
inline constexpr std::chrono::milliseconds kEndPatience{2000};

/// Messages on their way to the broker without its acknowledgement, and those that wait behind them. When more wait,
/// an older one for the same topic is dropped: topics are retained and only the last counts.
inline constexpr std::size_t kMaxInFlight = 16;
inline constexpr std::size_t kMaxWaitingPublications = 64;

} // namespace HVBEnterprise::agent
