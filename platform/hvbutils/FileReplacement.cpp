#include "platform/hvbutils/FileReplacement.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <utility>

namespace {

constexpr mode_t kModeBits = 07777;

/// A name that nobody can have planted beforehand; empty when the system has no randomness.
std::string temporaryName() {
    std::array<std::uint64_t, 2> random{};
    if (::getrandom(random.data(), sizeof random, 0) != static_cast<ssize_t>(sizeof random)) {
        return {};
    }
    return fmt::format(".hvconfig-{:016x}{:016x}", random[0], random[1]);
}

/// The directory of the file; every step goes through it, so that all happen in the same one.
/// Threads: one. Owner: a function's stack.
class Directory {
public:
    explicit Directory(const std::string& path)
        : m_fd(::open(path.empty() ? "." : path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {}
    ~Directory() {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
    }
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;

    int get() const { return m_fd; }
    /// Some file systems cannot do that for directories, and say so.
    bool sync() const { return ::fsync(m_fd) == 0 || errno == EINVAL; }

private:
    const int m_fd;
};

/// A new file in the directory, which is gone again unless it takes another's place.
/// Threads: one. Owner: a function's stack.
class TemporaryFile {
public:
    explicit TemporaryFile(const Directory& directory) : m_directory(directory), m_name(temporaryName()) {
        constexpr mode_t ownerOnly = 0600;
        if (!m_name.empty()) {
            m_fd = ::openat(m_directory.get(), m_name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                            ownerOnly);
            m_exists = m_fd >= 0;
        }
    }
    ~TemporaryFile() {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
        if (m_exists) {
            ::unlinkat(m_directory.get(), m_name.c_str(), 0);
        }
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    /// The owner comes first, since a change of it takes set-id bits away.
    bool resemble(const struct stat& original) const {
        return give(original.st_uid, original.st_gid) && ::fchmod(m_fd, original.st_mode & kModeBits) == 0;
    }

    bool write(std::string_view content) const {
        while (!content.empty()) {
            const ssize_t written = ::write(m_fd, content.data(), content.size());
            if (written < 0 && errno != EINTR) {
                return false;
            }
            content.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
        }
        return true;
    }

    /// Closes it, as some file systems tell only then that they could not store it.
    bool finish() { return ::fsync(m_fd) == 0 && ::close(std::exchange(m_fd, -1)) == 0; }

    bool takePlaceOf(const std::string& name) {
        m_exists = ::renameat(m_directory.get(), m_name.c_str(), m_directory.get(), name.c_str()) != 0;
        return !m_exists;
    }

private:
    /// Who may not give files away may still give them to a group of its own.
    bool give(uid_t owner, gid_t group) const {
        constexpr auto sameOwner = static_cast<uid_t>(-1);
        return ::fchown(m_fd, owner, group) == 0 ||
               (errno == EPERM && (::fchown(m_fd, sameOwner, group) == 0 || errno == EPERM));
    }

    const Directory& m_directory;
    const std::string m_name;
    int m_fd = -1;
    bool m_exists = false;
};

} // namespace

bool replaceFile(const std::string& path, std::string_view content) {
    const std::size_t cut = path.rfind('/') + 1; // npos, one further, is the start
    const std::string name = path.substr(cut);
    const Directory directory(path.substr(0, cut));
    struct stat original {};
    if (directory.get() < 0 || ::fstatat(directory.get(), name.c_str(), &original, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISREG(original.st_mode)) {
        return false;
    }
    TemporaryFile file(directory);
    // A failure of any step leaves the rest undone, and takes the temporary file away.
    return file.resemble(original) && file.write(content) && file.finish() && file.takePlaceOf(name) &&
           directory.sync();
}
