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
#include <linux/limits.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <utility>
#include <vector>

namespace Sentrel {
namespace {

constexpr mode_t kPrivate = 0600;
constexpr mode_t kReadable = 0644;
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
    void becomeReadable() const { setMode(kReadable); }

    /// Only root may give a file away; anybody else's stays its maker's.
    void belongToDirectorysOwner() const {
        struct stat facts {};
        if (::geteuid() == 0 &&
            (::fstat(m_directory.get(), &facts) != 0 || ::fchown(m_fd.get(), facts.st_uid, facts.st_gid) != 0)) {
            failFile(errno, m_directory.path(), "cannot get its owner");
        }
    }

    /// The owner comes first: changing it clears the set-id bits. An access list comes after the mode, which is a part
    /// of it.
    void becomeLike(int original, const struct stat& facts) const {
        setOwner(facts.st_uid, facts.st_gid);
        const std::vector<std::string> wanted = attributesOf(original);
        for (const std::string& given : attributesOf(m_fd.get())) { // by its directory
            if (std::find(wanted.begin(), wanted.end(), given) == wanted.end()) {
                removeAttribute(given);
            }
        }
        setMode(facts.st_mode & kModeBits);
        for (const std::string& attribute : wanted) {
            copyAttribute(original, attribute);
        }
    }

    int get() const { return m_fd.get(); }

    void fill(std::string_view bytes) {
        writeAll(m_fd.get(), bytes, m_directory.path());
        store();
    }

    /// Closes it too: some file systems report a failed write only then.
    void store() {
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

    void setOwner(uid_t owner, gid_t group) const {
        struct stat facts {};
        const bool isAsWanted = ::fstat(m_fd.get(), &facts) == 0 && facts.st_uid == owner && facts.st_gid == group;
        if (!isAsWanted && ::fchown(m_fd.get(), owner, group) != 0) {
            failFile(
                errno, m_directory.path(),
                fmt::format("its owner {} and group {} cannot be kept by user {}", owner, group, ::geteuid()).c_str());
        }
    }

    std::vector<std::string> attributesOf(int file) const {
        std::array<char, XATTR_LIST_MAX> names{};
        const ssize_t size = ::flistxattr(file, names.data(), names.size());
        if (size < 0 && errno != ENOTSUP) {
            failFile(errno, m_directory.path(), "its attributes cannot be read");
        }
        std::vector<std::string> wanted;
        for (ssize_t at = 0; at < size; at += static_cast<ssize_t>(std::strlen(names.data() + at)) + 1) {
            const std::string_view name = names.data() + at;
            if (!name.starts_with("security.")) {
                wanted.emplace_back(name);
            }
        }
        return wanted;
    }

    void removeAttribute(const std::string& name) const {
        if (::fremovexattr(m_fd.get(), name.c_str()) != 0) {
            failFile(errno, m_directory.path(), fmt::format("the attribute {} cannot be removed", name).c_str());
        }
    }

    void copyAttribute(int original, const std::string& name) const {
        std::vector<char> value(XATTR_SIZE_MAX);
        const ssize_t size = ::fgetxattr(original, name.c_str(), value.data(), value.size());
        if (size < 0 || ::fsetxattr(m_fd.get(), name.c_str(), value.data(), static_cast<std::size_t>(size), 0) != 0) {
            failFile(errno, m_directory.path(), fmt::format("its attribute {} cannot be kept", name).c_str());
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

/// Opens the file that is to be replaced. What it is is looked at first: opening a device may do something.
UniqueFd openRegularFile(const DirectoryOf& directory) {
    struct stat facts {};
    if (::fstatat(directory.get(), directory.name().c_str(), &facts, AT_SYMLINK_NOFOLLOW) != 0) {
        failFile(errno, directory.path(), "cannot be seen");
    }
    if (!S_ISREG(facts.st_mode)) {
        failFile(S_ISLNK(facts.st_mode) ? ELOOP : EINVAL, directory.path(), "is not a regular file");
    }
    UniqueFd file(::openat(directory.get(), directory.name().c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file.isOpen()) {
        failFile(errno, directory.path(), "cannot be opened");
    }
    return file;
}

/// Of a file that was opened as a regular one. Another may have come to its name between the look and the opening.
struct stat factsOf(const UniqueFd& file, const DirectoryOf& directory) {
    struct stat facts {};
    if (::fstat(file.get(), &facts) != 0 || !S_ISREG(facts.st_mode)) {
        failFile(EINVAL, directory.path(), "is not a regular file");
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
        const UniqueFd original = openRegularFile(directory);
        NewFile file(directory, unguessableName(directory));
        file.becomeLike(original.get(), factsOf(original, directory));
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

/// Threads: one. Owner: its FileReplacement.
struct FileReplacement::Files {
    explicit Files(const std::string& path) : directory(path), file(directory, freePrivateName(directory)) {}

    const DirectoryOf directory;
    NewFile file;
};

FileReplacement::FileReplacement(const std::string& path) : m_files(std::make_unique<Files>(path)) {}

FileReplacement::~FileReplacement() = default;

int FileReplacement::fd() const {
    return m_files->file.get();
}

void FileReplacement::commit() {
    m_files->file.becomeReadable();
    m_files->file.store();
    m_files->file.takePlaceOf(m_files->directory.name());
    m_files->directory.sync(Replace::AsPrivate);
}

void makeFile(const std::string& path, std::string_view bytes, NewFileFor whom) {
    const DirectoryOf directory(path);
    NewFile file(directory, directory.name());
    switch (whom) {
    case NewFileFor::DirectoryOwner:
        file.belongToDirectorysOwner();
        [[fallthrough]];
    case NewFileFor::Maker:
        file.becomePrivate();
        break;
    case NewFileFor::MakerAndReaders:
        file.becomeReadable();
        break;
    }
    file.fill(bytes);
    file.keep();
    directory.sync(Replace::AsPrivate);
}

} // namespace Sentrel
