// The head of the spool's file: where the records stand, and what became of them. docs/formats.md describes the file.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace HVB::detail {

/// What a spool says of itself. The last three count over the life of the file.
struct SpoolCounts {
    std::uint64_t waiting = 0;      ///< records that the hub has not stored yet
    std::uint64_t refusedFull = 0;  ///< records that found no room, and were not taken
    std::uint64_t refusedByHub = 0; ///< records that were taken, and that the hub will never store
    std::uint64_t damaged = 0;      ///< records that were taken, and could not be read any more
};

using SpoolKey = std::array<unsigned char, 16>;

/// The head as it stands in the file, in the machine's own byte order. It is written to two places in turn, so that one
/// of them is whole whenever the machine stops.
struct SpoolHead {
    std::array<char, 8> magic{'S', 'N', 'T', 'S', 'P', 'O', 'O', 'L'};
    std::uint64_t version = 1;
    std::uint64_t dataBytes = 0; ///< of the ring behind the heads
    SpoolKey key{};              ///< of this file's marks
    std::uint64_t sequence = 0;  ///< the higher one of two heads counts
    std::uint64_t first = 0;     ///< position of the oldest record that waits
    SpoolCounts counts;
    std::uint64_t mark = 0; ///< of all that stands before it
};
static_assert(sizeof(SpoolHead) == 96, "no padding: the bytes are what is marked and written");

// Where things stand in the file, in bytes. Each head has a page of its own.
inline constexpr std::size_t kSpoolHeadDistance = 4096;
inline constexpr std::size_t kSpoolDataOffset = 2 * kSpoolHeadDistance;

/// The mark of @p bytes: it fits these bytes and this file's key alone, so that neither chance nor the sender of a
/// record can make bytes that pass for a record.
std::uint64_t spoolMark(const SpoolKey& key, std::string_view bytes);

void markHead(SpoolHead& head);

/// The newest whole head of an open file. @return nothing when it has none.
std::optional<SpoolHead> readSpoolHead(int fd);

/// What the spool at @p path says of itself, for whoever may read it; its owner may be writing to it meanwhile.
/// @return nothing when there is no file.
/// @throws HVBException with the errno when it cannot be read, with -EBADMSG when it is no spool.
std::optional<SpoolCounts> spoolCounts(const std::string& path);

} // namespace HVB::detail
