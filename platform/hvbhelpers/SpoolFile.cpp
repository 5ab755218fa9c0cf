// The ring. A record's position counts the bytes since the file was made and never goes back; its place in the file is
// the position modulo the size of the ring. The position stands in the record and goes into its mark, so what is left
// of an earlier round is never taken for a record, and the end of the records needs no place of its own: it is where
// no record with its own position stands any more.
//
// Behind a damaged record the next one is looked for, byte by byte of its alignment. Only a key that is in the file
// alone makes a mark, so bytes that somebody put into a record's text do not pass for one.
//
// The head is written without a sync when a record is taken out: a record that comes back after a power cut is sent
// again, and the hub knows its number. But bytes before the first record are only written over when the head that
// says so is on the disk.
#include "platform/hvbhelpers/SpoolFile.h"

#include "hub/Exceptions.h"

#include <fcntl.h>
#include <sodium.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

namespace HVB::detail {
namespace {

/// What stands in front of a record's bytes.
struct RecordHead {
    std::array<char, 4> magic{'R', 'E', 'C', '1'};
    std::uint32_t size = 0;
    std::uint64_t position = 0;
    std::uint64_t mark = 0; ///< of the three above and the bytes behind
};
static_assert(sizeof(RecordHead) == 24, "no padding");

constexpr std::uint64_t kAlignment = 8;
/// After so many removals the head is synced. The hub remembers more instances than that.
constexpr std::uint32_t kRemovalsBetweenSyncs = 64;
constexpr mode_t kMode = 0600;

std::uint64_t spaceOf(std::size_t recordBytes) {
    return (sizeof(RecordHead) + recordBytes + kAlignment - 1) / kAlignment * kAlignment;
}

std::uint64_t markOf(const SpoolKey& key, RecordHead head, std::string_view record) {
    head.mark = 0;
    std::string marked(reinterpret_cast<const char*>(&head), sizeof head);
    marked += record;
    return spoolMark(key, marked);
}

void writeFully(int fd, std::string_view bytes, std::uint64_t offset) {
    while (!bytes.empty()) {
        const ssize_t written = ::pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (written < 0 && errno != EINTR) {
            throw std::system_error(errno, std::system_category());
        }
        const auto count = static_cast<std::size_t>(std::max<ssize_t>(written, 0));
        bytes.remove_prefix(count);
        offset += count;
    }
}

/// Whether the file is new, or was left by a process that ended before it had written a head. Such a file has nothing
/// but zeroes, to its end: one whose heads alone were zeroed may have records, and stays for somebody to look at.
bool isBlank(int fd) {
    std::array<char, std::size_t{64} << 10U> part{};
    off_t at = 0;
    ssize_t got = 0;
    while ((got = ::pread(fd, part.data(), part.size(), at)) > 0) {
        if (!std::all_of(part.begin(), part.begin() + got, [](char c) { return c == '\0'; })) {
            return false;
        }
        at += got;
    }
    return got == 0;
}

void syncDirectoryOf(const std::string& path) {
    const Sentrel::UniqueFd directory(
        ::open(path.substr(0, path.rfind('/') + 1).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.isOpen() || ::fsync(directory.get()) != 0) {
        throw std::system_error(errno, std::system_category());
    }
}

} // namespace

SpoolFile::SpoolFile(std::string path, std::size_t fileBytes) : m_path(std::move(path)) {
    openFile();
    try {
        makeOrLoad(fileBytes);
    } catch (const std::system_error& error) {
        fail(error.code().value(), "cannot be made");
    }
    m_syncedFirst = m_head.first;
    countRecords(m_head.first + m_head.dataBytes);
}

void SpoolFile::openFile() {
    m_fd.reset(::open(m_path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, kMode));
    struct stat facts {};
    if (!m_fd.isOpen() || ::fstat(m_fd.get(), &facts) != 0) {
        fail(errno, "cannot be opened");
    }
    if (!S_ISREG(facts.st_mode)) {
        fail(EINVAL, "is no regular file");
    }
    if (facts.st_uid != ::geteuid() || facts.st_nlink != 1) {
        fail(EPERM, "is another user's file, or has a second name");
    }
    if (::flock(m_fd.get(), LOCK_EX | LOCK_NB) != 0) {
        fail(errno == EWOULDBLOCK ? EBUSY : errno, "cannot be locked");
    }
    if ((facts.st_mode & 07777U) != kMode && ::fchmod(m_fd.get(), kMode) != 0) {
        fail(errno, "cannot be made private");
    }
}

void SpoolFile::makeOrLoad(std::size_t fileBytes) {
    if (isBlank(m_fd.get())) {
        makeFile(fileBytes);
        return;
    }
    const std::optional<SpoolHead> found = readSpoolHead(m_fd.get());
    if (!found || found->dataBytes == 0 || found->dataBytes > kSpoolFileBytes || found->dataBytes % kAlignment != 0) {
        fail(EBADMSG, "is no spool, or its head is damaged. Move it away; the next start makes a new one");
    }
    m_head = *found;
    // A file that was cut gets its blocks back.
    if (const int error = ::posix_fallocate(m_fd.get(), 0, static_cast<off_t>(kSpoolDataOffset + m_head.dataBytes))) {
        throw std::system_error(error, std::system_category());
    }
}

void SpoolFile::makeFile(std::size_t fileBytes) {
    if (const int error = ::posix_fallocate(m_fd.get(), 0, static_cast<off_t>(fileBytes))) {
        // Not left behind at a size that takes the rest of a full disk.
        [[maybe_unused]] const int cut = ::ftruncate(m_fd.get(), 0); // if that fails too, the next start tries again
        throw std::system_error(error, std::system_category());
    }
    m_head.dataBytes = (fileBytes - kSpoolDataOffset) / kAlignment * kAlignment;
    randombytes_buf(m_head.key.data(), m_head.key.size());
    writeHead();
    writeHead();
    sync();
    syncDirectoryOf(m_path);
}

/// Walks from the first record to where none follows any more, or to @p end. Records that the head still counts and
/// that are not found were damaged.
void SpoolFile::countRecords(std::uint64_t end) {
    const std::uint64_t counted = m_head.counts.waiting;
    std::uint64_t found = 0;
    m_end = m_head.first;
    while (const std::optional<Place> place = findRecord(m_end, end)) {
        m_end = place->position + place->space;
        ++found;
    }
    m_head.counts.waiting = found;
    m_head.counts.damaged += counted > found ? counted - found : 0;
}

/// The first whole record from @p from on that begins before @p end.
std::optional<SpoolFile::Place> SpoolFile::findRecord(std::uint64_t from, std::uint64_t end) const {
    constexpr std::uint64_t chunkBytes = std::uint64_t{64} << 10U;
    const RecordHead wanted;
    if (from < end) { // mostly one follows the other
        if (const std::optional<std::string> record = readRecord(from)) {
            return Place{from, spaceOf(record->size())};
        }
    }
    for (std::uint64_t start = from; start < end; start += chunkBytes) {
        const std::string chunk = readRing(start, std::min(chunkBytes, end - start));
        for (std::size_t at = 0; at + kAlignment <= chunk.size(); at += kAlignment) {
            if (std::memcmp(chunk.data() + at, wanted.magic.data(), wanted.magic.size()) != 0) {
                continue;
            }
            if (const std::optional<std::string> record = readRecord(start + at)) {
                return Place{start + at, spaceOf(record->size())};
            }
        }
    }
    return std::nullopt;
}

/// The record at a position. None when no whole record with that position stands there.
std::optional<std::string> SpoolFile::readRecord(std::uint64_t position) const {
    RecordHead head;
    const RecordHead wanted;
    std::memcpy(&head, readRing(position, sizeof head).data(), sizeof head);
    if (head.magic != wanted.magic || head.position != position || head.size > kMaxSpoolRecordBytes ||
        spaceOf(head.size) > m_head.dataBytes) {
        return std::nullopt;
    }
    std::string record = readRing(position + sizeof head, head.size);
    return head.mark == markOf(m_head.key, head, record) ? std::optional(std::move(record)) : std::nullopt;
}

std::string SpoolFile::readRing(std::uint64_t position, std::size_t size) const {
    std::string bytes(size, '\0');
    for (std::size_t done = 0; done < size;) {
        const std::uint64_t place = (position + done) % m_head.dataBytes;
        const std::size_t part = std::min<std::uint64_t>(size - done, m_head.dataBytes - place);
        const ssize_t got =
            ::pread(m_fd.get(), bytes.data() + done, part, static_cast<off_t>(kSpoolDataOffset + place));
        if (got == 0 || (got < 0 && errno != EINTR)) {
            fail(got == 0 ? EIO : errno, "cannot be read");
        }
        done += static_cast<std::size_t>(std::max<ssize_t>(got, 0));
    }
    return bytes;
}

void SpoolFile::writeRing(std::uint64_t position, std::string_view bytes) {
    const std::uint64_t place = position % m_head.dataBytes;
    const std::string_view front = bytes.substr(0, m_head.dataBytes - place);
    writeFully(m_fd.get(), front, kSpoolDataOffset + place);
    writeFully(m_fd.get(), bytes.substr(front.size()), kSpoolDataOffset);
}

void SpoolFile::writeHead() {
    ++m_head.sequence;
    markHead(m_head);
    const std::string_view bytes(reinterpret_cast<const char*>(&m_head), sizeof m_head);
    writeFully(m_fd.get(), bytes, m_head.sequence % 2 * kSpoolHeadDistance);
}

void SpoolFile::sync() {
    if (::fdatasync(m_fd.get()) != 0) {
        throw std::system_error(errno, std::system_category());
    }
    m_syncedFirst = m_head.first;
    m_unsyncedRemovals = 0;
}

std::uint64_t SpoolFile::room() const {
    return m_head.dataBytes - (m_end - m_syncedFirst);
}

bool SpoolFile::append(std::string_view record) {
    const std::uint64_t space = spaceOf(record.size());
    try {
        if (space > room() && m_syncedFirst != m_head.first) {
            sync();
        }
        if (space > room() || record.size() > kMaxSpoolRecordBytes) {
            ++m_head.counts.refusedFull;
            writeHead();
            return false;
        }
        RecordHead head{.size = static_cast<std::uint32_t>(record.size()), .position = m_end};
        head.mark = markOf(m_head.key, head, record);
        std::string bytes(reinterpret_cast<const char*>(&head), sizeof head);
        bytes += record;
        writeRing(m_end, bytes);
        sync();
    } catch (const std::system_error& error) {
        fail(error.code().value(), "cannot be written");
    }
    m_end += space;
    ++m_head.counts.waiting;
    try {
        writeHead();
    } catch (const std::system_error&) {
        // The record is on the disk. The head only counts it, and counts again at the next start.
        return true;
    }
    return true;
}

std::optional<std::string> SpoolFile::first() {
    if (isEmpty()) {
        return std::nullopt;
    }
    if (std::optional<std::string> record = readRecord(m_head.first)) {
        return record;
    }
    // Damaged: the next whole one is the first now.
    const std::optional<Place> next = findRecord(m_head.first, m_end);
    const std::uint64_t end = m_end;
    m_head.first = next ? next->position : end;
    countRecords(end);
    m_end = end; // what stands behind it was never there
    return next ? readRecord(next->position) : std::nullopt;
}

void SpoolFile::removeFirst(End end) {
    const std::optional<std::string> record = readRecord(m_head.first);
    m_head.first += record ? spaceOf(record->size()) : 0;
    m_head.counts.waiting -= record ? 1U : 0U;
    m_head.counts.refusedByHub += end == End::RefusedByHub ? 1U : 0U;
    m_head.counts.damaged += end == End::Damaged ? 1U : 0U;
    try {
        writeHead();
        if (++m_unsyncedRemovals >= kRemovalsBetweenSyncs) {
            sync();
        }
    } catch (const std::system_error& error) {
        fail(error.code().value(), "cannot be written");
    }
}

void SpoolFile::countRefusedByHub() {
    ++m_head.counts.refusedByHub;
    try {
        writeHead();
    } catch (const std::system_error& error) {
        fail(error.code().value(), "cannot be written");
    }
}

void SpoolFile::fail(int error, const char* doing) const {
    throw HVBException(-error, m_path + " " + doing + ": " + std::system_category().message(error));
}

} // namespace HVB::detail
