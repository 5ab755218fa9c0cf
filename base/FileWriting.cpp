// A file's new content in one step, also against a power cut and against who else may write the directory.
//
// The steps: open the directory, make a new file in it, write, sync, close, rename, sync the directory. All of them go
// through the one descriptor of the directory, so that they happen in the same one even when its path is changed
// meanwhile. A close that fails is a failure: some file systems report a failed write only then.
//
// The new file is made with O_EXCL and O_NOFOLLOW and mode 0600; what is there by its name is never opened. A file of
// several writers gets a name that nobody can guess, so nobody can plant it. A private file has one writer and one
// name beside it, and what an earlier writer left there is removed first. The owner is set before the mode, since
// changing the owner clears the set-id bits.
#include "base/FileWriting.h"

#include "base/FileFailure.h"
#include "base/UniqueFd.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <system_error>
#include <utility>

namespace Sentrel {
namespace {

constexpr mode_t kPrivate = 0600;
constexpr mode_t kModeBits = 07777;

/// The directory of a file, opened before the file is touched; every step goes through it, so that all happen in the
/// same one.
/// Threads: one. Owner: the operation.
class DirectoryOf {
public:
    explicit DirectoryOf(const std::string& path)
        : m_path(path), m_cut(path.rfind('/') + 1), // npos, one further, is the start
          m_fd(::open(m_cut == 0 ? "." : path.substr(0, m_cut).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
        if (!m_fd.isOpen()) {
            failFile(errno, path, "its directory cannot be opened");
        }
    }

    int get() const { return m_fd.get(); }
    /// The file's name in it, and the whole path for messages.
    std::string name() const { return m_path.substr(m_cut); }
    const std::string& path() const { return m_path; }

    void sync(Replace how) const {
        const bool mayBeUnable = how == Replace::KeepingModeAndOwner;
        if (::fsync(get()) != 0 && !(mayBeUnable && errno == EINVAL)) {
            failFile(errno, m_path, "its directory cannot be synced");
        }
    }

private:
    const std::string m_path;
    const std::size_t m_cut;
    const UniqueFd m_fd;
};

/// A new file, which is removed when this ends unless it was kept or took another's place.
/// Threads: one. Owner: the operation; the directory must outlive it.
class NewFile {
public:
    NewFile(const DirectoryOf& directory, std::string name)
        : m_directory(directory), m_name(std::move(name)),
          m_fd(::openat(directory.get(), m_name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                        kPrivate)) {
        if (!m_fd.isOpen()) {
            failFile(errno, directory.path(), "cannot be made"); // what is there is somebody else's, and stays
        }
    }
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;
    ~NewFile() {
        if (!m_kept) {
            ::unlinkat(m_directory.get(), m_name.c_str(), 0);
        }
    }

    void becomePrivate() const { setMode(kPrivate); }

    /// The owner comes first: changing it clears the set-id bits.
    void copyOwnerAndMode(const struct stat& original) const {
        setOwner(original.st_uid, original.st_gid);
        setMode(original.st_mode & kModeBits);
    }

    /// Closes it too: some file systems report a failed write only then.
    void fill(std::string_view bytes) {
        writeAll(m_fd.get(), bytes, m_directory.path());
        if (::fsync(m_fd.get()) != 0 || !m_fd.close()) {
            failFile(errno, m_directory.path(), "cannot be stored");
        }
    }

    void keep() { m_kept = true; }

    void takePlaceOf(const std::string& name) {
        if (::renameat(m_directory.get(), m_name.c_str(), m_directory.get(), name.c_str()) != 0) {
            failFile(errno, m_directory.path(), "cannot be replaced");
        }
        keep();
    }

private:
    void setMode(mode_t mode) const {
        if (::fchmod(m_fd.get(), mode) != 0) {
            failFile(errno, m_directory.path(), "cannot get its mode");
        }
    }

    /// A process that may not give files away may still set a group that it belongs to.
    void setOwner(uid_t owner, gid_t group) const {
        constexpr auto sameOwner = static_cast<uid_t>(-1);
        const bool isGiven = ::fchown(m_fd.get(), owner, group) == 0 ||
                             (errno == EPERM && (::fchown(m_fd.get(), sameOwner, group) == 0 || errno == EPERM));
        if (!isGiven) {
            failFile(errno, m_directory.path(), "cannot get its owner");
        }
    }

    const DirectoryOf& m_directory;
    const std::string m_name;
    UniqueFd m_fd;
    bool m_kept = false;
};

/// A name that nobody can guess, and so nobody can have planted a file under it.
std::string unguessableName(const DirectoryOf& directory) {
    std::array<std::uint64_t, 2> random{};
    if (::getrandom(random.data(), sizeof random, 0) != static_cast<ssize_t>(sizeof random)) {
        failFile(EIO, directory.path(), "the system has no random numbers to give");
    }
    return fmt::format(".sentrel-{:016x}{:016x}", random[0], random[1]);
}

/// The one name that this file's private writer uses. Removes what an earlier writer left there.
std::string freePrivateName(const DirectoryOf& directory) {
    std::string name = directory.name() + ".new";
    if (::unlinkat(directory.get(), name.c_str(), 0) != 0 && errno != ENOENT) {
        failFile(errno, directory.path() + ".new", "is in the way");
    }
    return name;
}

struct stat factsOfRegularFile(const DirectoryOf& directory) {
    struct stat facts {};
    if (::fstatat(directory.get(), directory.name().c_str(), &facts, AT_SYMLINK_NOFOLLOW) != 0) {
        failFile(errno, directory.path(), "cannot be seen");
    }
    if (!S_ISREG(facts.st_mode)) {
        failFile(S_ISLNK(facts.st_mode) ? ELOOP : EINVAL, directory.path(), "is not a regular file");
    }
    return facts;
}

} // namespace

void writeAll(int fd, std::string_view bytes, const std::string& name) {
    while (!bytes.empty()) {
        const ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0 && errno != EINTR) {
            failFile(errno, name, "cannot be written");
        }
        bytes.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
    }
}

void replaceFile(const std::string& path, std::string_view bytes, Replace how) {
    const DirectoryOf directory(path);
    if (how == Replace::KeepingModeAndOwner) {
        const struct stat original = factsOfRegularFile(directory);
        NewFile file(directory, unguessableName(directory));
        file.copyOwnerAndMode(original);
        file.fill(bytes);
        file.takePlaceOf(directory.name());
    } else {
        NewFile file(directory, freePrivateName(directory));
        file.becomePrivate();
        file.fill(bytes);
        file.takePlaceOf(directory.name());
    }
    directory.sync(how);
}

void makePrivateFile(const std::string& path, std::string_view bytes) {
    const DirectoryOf directory(path);
    NewFile file(directory, directory.name());
    file.becomePrivate();
    file.fill(bytes);
    file.keep();
    directory.sync(Replace::AsPrivate);
}

} // namespace Sentrel
