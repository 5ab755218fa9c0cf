// The limits of hvbd, each with its unit and its reason. What both sides of the bus share stands in HubProtocol.h.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace HVB::hub {

// A batch of records shares one synced commit. Its bounds keep the senders in front from waiting for those behind.
inline constexpr std::size_t kMaxBatchRecords = 256;
inline constexpr std::size_t kMaxBatchBytes = std::size_t{8} << 20;
/// A batch is written after this long even when the bus never falls silent.
inline constexpr std::chrono::microseconds kMaxBatchAge{20'000};

/// What a stored record costs beside its two texts, in bytes: its row and its share of the pages.
inline constexpr std::uint64_t kRecordOverheadBytes = 64;
/// Two texts with fewer bytes than this are stored as they are: a person reads them with the sqlite3 program, and there
/// is next to nothing to gain.
inline constexpr std::size_t kSmallestPackedBytes = 256;
/// So many records are merged into others at a time. More would hold up the senders for longer than they wait.
inline constexpr std::size_t kMaxMergedRecords = 10'000;
/// A store that exceeds its limit, as after the limit was lowered, gives up so many bytes of records in one
/// transaction. A slice takes some 50 ms of the loop's time, and about as much room in the write-ahead log as it has
/// bytes.
inline constexpr std::uint64_t kSliceBytes = std::uint64_t{1} << 20;
/// After trouble with a slice the next one is tried so much later.
inline constexpr std::chrono::seconds kSliceRetryPause{1};
/// Senders whose numbers are remembered. A sender has one record on its way, so what may come twice is the last record
/// of one that stored lately.
inline constexpr std::int64_t kMaxInstances = 256;
/// How long a write waits for another program's lock. Two such waits still fit into the sender's 1.5 s.
inline constexpr std::chrono::milliseconds kStoreLockWait{300};
/// Write-ahead logs that are kept of store files that were moved away. With so many nobody looks after them, and
/// records are refused rather than one of them lost.
inline constexpr int kMaxOrphans = 100;
/// The write-ahead log is given back to the file system down to this size whenever it starts anew, in bytes.
inline constexpr std::int64_t kKeptWalBytes = std::int64_t{4} << 20;
/// A program that reads without end keeps the write-ahead log from starting anew. Beyond this size records are refused.
inline constexpr std::int64_t kMaxWalBytes = std::int64_t{32} << 20;

/// One ReadLog reply: so many records, and so many bytes of text (but always one record, however long).
inline constexpr std::uint32_t kMaxReadRecords = 1000;
inline constexpr std::size_t kMaxReadBytes = std::size_t{512} << 10;

/// One line to the system log, in bytes of UTF-8 without the head that names the module. What is longer is cut.
inline constexpr std::size_t kMaxLogLineBytes = 2048;
/// A module's name in the head of a line, in bytes of UTF-8.
inline constexpr std::size_t kMaxModuleNameBytes = 64;

/// The text of a LogLevel that is no level, in bytes of UTF-8, where a line quotes it.
inline constexpr std::size_t kMaxQuotedLevelBytes = 64;

/// A module that has not answered its health check by then, or by the next check, counts as silent.
inline constexpr std::chrono::seconds kHealthCheckDeadline{5};
/// So many missed checks in a row are no accident, such as a machine that was asleep: the module is marked for a
/// restart.
inline constexpr int kMissedForMark = 3;
/// After hvbd came back to the bus the modules get this long to come as well, before they count as gone.
inline constexpr std::chrono::seconds kFirstHealthCheck{5};
/// A module that has just come and answers with an error is asked again for this long, with this pause. Only then does
/// it count as silent.
inline constexpr std::chrono::seconds kNewcomerTime{5};
inline constexpr std::chrono::milliseconds kNewcomerPause{250};

/// How long the settings keeper may take for a fresh reading: its own longest wait for a list that changes, and time to
/// read.
inline constexpr std::chrono::seconds kFreshDeadline{8};
/// Calls that wait for a fresh reading: of one connection, and together. A client needs one.
inline constexpr std::ptrdiff_t kMaxFreshCallsOfConnection = 4;
inline constexpr std::size_t kMaxFreshCalls = 1024;

/// Requests of one user that wait for an answer: more nobody reads.
inline constexpr std::int64_t kMaxOpenRequestsOfUser = 20;
/// Requests of all users, answered ones included: 50 users at their bound. With the longest texts 2 MiB.
inline constexpr std::int64_t kMaxRequests = 1000;
/// Grants, for a time and for good.
inline constexpr std::int64_t kMaxGrants = 1000;
/// Grants that end with one change of the list.
inline constexpr std::int64_t kMaxEndsOfChange = 200;
/// Calls that wait for the bus to say whose they are: of one connection, and together.
inline constexpr std::ptrdiff_t kMaxUnknownCallsOfConnection = 4;
inline constexpr std::size_t kMaxUnknownCalls = 256;
/// Changes of grants that wait for their turn.
inline constexpr std::size_t kMaxGrantChanges = 32;
/// How long the daemon may take for a list: it writes each entry to the disk. Below the bus's own limit for a reply.
inline constexpr std::chrono::seconds kListDeadline{45};
/// How long anything else of such a change may take.
inline constexpr std::chrono::seconds kListReadDeadline{10};
/// How often a change begins anew because others changed the list meanwhile.
inline constexpr int kListAttempts = 3;
/// Pause before an entry that could not be taken out is tried again; doubled each time.
inline constexpr std::chrono::seconds kFirstEndPause{1};
inline constexpr std::chrono::seconds kLastEndPause{60};

} // namespace HVB::hub
