// Records on the disk, in the order of their arrival, until somebody has taken them over.
#pragma once

#include "base/UniqueFd.h"
#include "platform/hvbhelpers/SpoolHead.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace HVB::detail {

/// Size of a spool's file. Its blocks are taken when it is made, so that a disk that fills up later does not matter.
inline constexpr std::size_t kSpoolFileBytes = std::size_t{16} << 20U;
/// Longest record in the file: two texts of kMaxTextBytes that do not get smaller, and what stands beside them.
inline constexpr std::size_t kMaxSpoolRecordBytes = (std::size_t{512} << 10U) + 256;

/// A queue of records in one file of fixed size that this user alone may read and write.
///
/// A record is there when append has returned, whatever becomes of the process or the power. A process that is killed
/// in the middle of an append leaves the records before it. Records whose bytes were damaged are passed over, counted
/// as damaged, and the ones behind them are kept. What is no spool is never written to. One process at a time has the
/// file; it locks it as long as this object lives.
///
/// Threads: one at a time. Owner: the record keeper.
class SpoolFile {
public:
    /// Opens the file at @p path, making it when there is none, and finds the records that wait in it.
    /// @param fileBytes of a new file.
    /// @throws HVBException with the errno when the file cannot be made or opened, -EBADMSG when it is no spool, -EPERM
    ///         when it is another user's or has further names, -EBUSY when another process has it.
    explicit SpoolFile(std::string path, std::size_t fileBytes = kSpoolFileBytes);
    SpoolFile(const SpoolFile&) = delete;
    SpoolFile& operator=(const SpoolFile&) = delete;
    ~SpoolFile() = default;

    /// Adds a record, and returns when it is on the disk.
    /// @return false when there is no room for it; then nothing has changed but refusedFull.
    /// @throws HVBException when the system refuses; the record is then not in the file.
    bool append(std::string_view record);

    /// The oldest record, which stays. @return nothing when none waits. @throws HVBException
    std::optional<std::string> first();

    /// What became of the oldest record.
    enum class End {
        Delivered,
        RefusedByHub,
        Damaged, ///< its bytes are whole and make no sense
    };
    /// Takes the oldest record out. After a power cut a few of those that were taken out last may be there again.
    /// Requires that first gave it. @throws HVBException
    void removeFirst(End end);

    /// Counts a record that the hub refused for good before it was in the file. @throws HVBException
    void countRefusedByHub();

    bool isEmpty() const { return m_head.counts.waiting == 0; }
    const SpoolCounts& counts() const { return m_head.counts; }

private:
    void openFile();
    void makeOrLoad(std::size_t fileBytes);
    void makeFile(std::size_t fileBytes);
    struct Place {
        std::uint64_t position;
        std::uint64_t space;
    };

    void countRecords(std::uint64_t end);
    std::uint64_t room() const;
    std::optional<Place> findRecord(std::uint64_t from, std::uint64_t end) const;
    std::optional<std::string> readRecord(std::uint64_t position) const;
    std::string readRing(std::uint64_t position, std::size_t size) const;
    void writeRing(std::uint64_t position, std::string_view bytes);
    void writeHead();
    void sync();
    [[noreturn]] void fail(int error, const char* doing) const;

    const std::string m_path; // constant after construction
    // Plain, single access.
    Sentrel::UniqueFd m_fd;
    SpoolHead m_head;
    std::uint64_t m_end = 0;         ///< position behind the newest record
    std::uint64_t m_syncedFirst = 0; ///< what stands before it may be written over
    std::uint32_t m_unsyncedRemovals = 0;
};

} // namespace HVB::detail
