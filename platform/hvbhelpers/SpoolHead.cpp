#include "platform/hvbhelpers/SpoolHead.h"

#include "base/UniqueFd.h"
#include "hub/Exceptions.h"

#include <fcntl.h>
#include <sodium.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace HVB::detail {
namespace {

std::uint64_t markOf(const SpoolHead& head) {
    return spoolMark(head.key, {reinterpret_cast<const char*>(&head), offsetof(SpoolHead, mark)});
}

std::optional<SpoolHead> readHeadAt(int fd, std::size_t offset) {
    SpoolHead head;
    const SpoolHead wanted;
    const ssize_t got = ::pread(fd, &head, sizeof head, static_cast<off_t>(offset));
    const bool isWhole = got == static_cast<ssize_t>(sizeof head) && head.magic == wanted.magic &&
                         head.version == wanted.version && head.mark == markOf(head);
    return isWhole ? std::optional(head) : std::nullopt;
}

} // namespace

std::uint64_t spoolMark(const SpoolKey& key, std::string_view bytes) {
    static_assert(std::tuple_size_v<SpoolKey> == crypto_shorthash_KEYBYTES);
    static_assert(sizeof(std::uint64_t) == crypto_shorthash_BYTES);
    std::uint64_t mark = 0;
    // Cannot fail.
    (void)crypto_shorthash(reinterpret_cast<unsigned char*>(&mark),
                           reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), key.data());
    return mark;
}

void markHead(SpoolHead& head) {
    head.mark = markOf(head);
}

std::optional<SpoolHead> readSpoolHead(int fd) {
    std::optional<SpoolHead> head = readHeadAt(fd, 0);
    const std::optional<SpoolHead> second = readHeadAt(fd, kSpoolHeadDistance);
    return second && (!head || second->sequence > head->sequence) ? second : head;
}

std::optional<SpoolCounts> spoolCounts(const std::string& path) {
    const Sentrel::UniqueFd file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    if (!file.isOpen()) {
        if (errno == ENOENT) {
            return std::nullopt;
        }
        throw HVBException(-errno, path + ": " + std::system_category().message(errno));
    }
    // A head that its owner is writing is not whole; the other one is then.
    const std::optional<SpoolHead> head = readSpoolHead(file.get());
    if (!head) {
        throw HVBException(-EBADMSG, path + " is no spool of reports");
    }
    return head->counts;
}

} // namespace HVB::detail
