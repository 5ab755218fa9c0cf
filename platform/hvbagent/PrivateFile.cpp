#include "platform/hvbagent/PrivateFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

namespace HVBEnterprise::agent {
namespace {

constexpr mode_t kPrivate = 0600;
constexpr mode_t kOthers = 077;
constexpr mode_t kOthersWrite = 022;

[[noreturn]] void fail(int error, const std::string& path, const char* what) {
    throw std::system_error(error, std::generic_category(), path + ": " + what);
}

/// Threads: single access. Owner: the operation.
class Descriptor {
public:
    Descriptor(const std::string& path, int flags, mode_t mode = 0)
        : m_fd(::open(path.c_str(), flags | O_CLOEXEC | O_NOCTTY, mode)) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
    }
    int get() const { return m_fd; }

private:
    int m_fd;
};

void checkAccess(const struct stat& facts, FileAccess access, const std::string& path) {
    if (access == FileAccess::Anybody) {
        return;
    }
    if (access == FileAccess::OwnerAlone && (facts.st_mode & kOthers) != 0) {
        fail(EACCES, path, "others than its owner may access it; it must have mode 0600");
    }
    if ((facts.st_mode & kOthersWrite) != 0) {
        fail(EACCES, path, "others than its owner may write to it; it must have mode 0644 or less");
    }
    if (facts.st_uid != ::geteuid() && facts.st_uid != 0) {
        fail(EACCES, path, "it belongs to another user");
    }
}

void writeAll(int fd, std::string_view bytes, const std::string& path) {
    while (!bytes.empty()) {
        const ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0 && errno != EINTR) {
            fail(errno, path, "cannot be written");
        }
        bytes.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
    }
}

/// The directory of a file, opened before the file is touched.
/// Threads: single access. Owner: the operation.
class DirectoryOf {
public:
    explicit DirectoryOf(const std::string& path)
        : m_path(path), m_opened(nameIn(path.substr(0, path.find_last_of('/') + 1)), O_RDONLY | O_DIRECTORY) {
        if (m_opened.get() < 0) {
            fail(errno, path, "its directory cannot be opened");
        }
    }
    void sync() const {
        if (::fsync(m_opened.get()) != 0) {
            fail(errno, m_path, "its directory cannot be synced");
        }
    }

private:
    static std::string nameIn(const std::string& directory) { return directory.empty() ? "." : directory; }

    const std::string& m_path;
    const Descriptor m_opened;
};

/// A file that did not exist, and does not when this ends, unless it was kept.
/// Threads: single access. Owner: the operation; the path must outlive it.
class NewFile {
public:
    explicit NewFile(const std::string& path)
        : m_path(path), m_file(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, kPrivate) {
        if (m_file.get() < 0) {
            fail(errno, path, "cannot be made"); // what is there is somebody else's, and stays
        }
    }
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;
    ~NewFile() {
        if (!m_kept) {
            ::unlink(m_path.c_str());
        }
    }

    void writeSynced(std::string_view bytes) const {
        writeAll(m_file.get(), bytes, m_path);
        if (::fchmod(m_file.get(), kPrivate) != 0 || ::fsync(m_file.get()) != 0) {
            fail(errno, m_path, "cannot be synced");
        }
    }
    void keep() { m_kept = true; }

private:
    const std::string& m_path;
    const Descriptor m_file;
    bool m_kept = false;
};

} // namespace

std::string readRegularFile(const std::string& path, std::size_t maxBytes, FileAccess access) {
    const Descriptor file(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    struct stat facts {};
    if (file.get() < 0 || ::fstat(file.get(), &facts) != 0) {
        fail(errno, path, "cannot be opened");
    }
    if (!S_ISREG(facts.st_mode)) {
        fail(EINVAL, path, "is not a regular file");
    }
    checkAccess(facts, access, path);
    std::string bytes(maxBytes + 1, '\0'); // one more, to see that there is more
    std::size_t length = 0;
    ssize_t got = 1;
    while (length < bytes.size() && got != 0) {
        got = ::read(file.get(), bytes.data() + length, bytes.size() - length);
        if (got < 0 && errno != EINTR) {
            fail(errno, path, "cannot be read");
        }
        length += got > 0 ? static_cast<std::size_t>(got) : 0;
    }
    if (length > maxBytes) {
        fail(EFBIG, path, "is too large");
    }
    bytes.resize(length);
    return bytes;
}

void requireOwnerAlone(const std::string& path) {
    struct stat facts {};
    if (::stat(path.c_str(), &facts) != 0) {
        fail(errno, path, "cannot be opened");
    }
    checkAccess(facts, FileAccess::OwnerAlone, path);
}

void replaceFile(const std::string& path, std::string_view bytes) {
    const DirectoryOf directory(path);
    const std::string beside = path + ".new";
    if (::unlink(beside.c_str()) != 0 && errno != ENOENT) { // left by one that was killed
        fail(errno, beside, "is in the way");
    }
    NewFile file(beside);
    file.writeSynced(bytes);
    if (::rename(beside.c_str(), path.c_str()) != 0) {
        fail(errno, path, "cannot be replaced");
    }
    file.keep();
    directory.sync();
}

void makeFile(const std::string& path, std::string_view bytes) {
    const DirectoryOf directory(path);
    NewFile file(path);
    file.writeSynced(bytes);
    file.keep();
    directory.sync();
}

} // namespace HVBEnterprise::agent
