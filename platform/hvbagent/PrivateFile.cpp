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

void checkAccess(const struct stat& facts, const std::string& path) {
    if ((facts.st_mode & kOthers) != 0) {
        fail(EACCES, path, "others than its owner may access it; it must have mode 0600");
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

void syncDirectoryOf(const std::string& path) {
    const std::string directory = path.substr(0, path.find_last_of('/') + 1);
    const Descriptor opened(directory.empty() ? "." : directory, O_RDONLY | O_DIRECTORY);
    if (opened.get() < 0 || ::fsync(opened.get()) != 0) {
        fail(errno, path, "its directory cannot be synced");
    }
}

void writeSynced(const std::string& path, std::string_view bytes) {
    const Descriptor file(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, kPrivate);
    if (file.get() < 0) {
        fail(errno, path, "cannot be made");
    }
    writeAll(file.get(), bytes, path);
    if (::fchmod(file.get(), kPrivate) != 0 || ::fsync(file.get()) != 0) {
        fail(errno, path, "cannot be synced");
    }
}

/// Removes a half-made file on the way out.
struct RemovedUnlessKept {
    const std::string& path;
    bool kept = false;
    ~RemovedUnlessKept() {
        if (!kept) {
            ::unlink(path.c_str());
        }
    }
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
    if (access == FileAccess::OwnerAlone) {
        checkAccess(facts, path);
    }
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

void replaceFile(const std::string& path, std::string_view bytes) {
    const std::string beside = path + ".new";
    if (::unlink(beside.c_str()) != 0 && errno != ENOENT) { // left by one that was killed
        fail(errno, beside, "is in the way");
    }
    RemovedUnlessKept guard{beside};
    writeSynced(beside, bytes);
    if (::rename(beside.c_str(), path.c_str()) != 0) {
        fail(errno, path, "cannot be replaced");
    }
    guard.kept = true;
    syncDirectoryOf(path);
}

void makeFile(const std::string& path, std::string_view bytes) {
    struct stat facts {};
    if (::lstat(path.c_str(), &facts) == 0) {
        fail(EEXIST, path, "is there already");
    }
    RemovedUnlessKept guard{path};
    writeSynced(path, bytes);
    guard.kept = true;
    syncDirectoryOf(path);
}

} // namespace HVBEnterprise::agent
