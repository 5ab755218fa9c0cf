#include "base/FileReading.h"

#include "base/FileFailure.h"
#include "base/UniqueFd.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace Sentrel {
namespace {

constexpr mode_t kOthers = 077;
constexpr mode_t kOthersWrite = 022;

[[noreturn]] void refuse(const std::string& name, const char* what) {
    throw UnsafeFile(name + ": " + what);
}

void checkAccess(const struct stat& facts, FileAccess access, const std::string& path) {
    if (access == FileAccess::Anybody) {
        return;
    }
    if (access == FileAccess::OwnerAlone && (facts.st_mode & kOthers) != 0) {
        refuse(path, "others than its owner may access it; it must have mode 0600");
    }
    if ((facts.st_mode & kOthersWrite) != 0) {
        refuse(path, "others than its owner may write to it; it must have mode 0644 or less");
    }
    if (facts.st_uid != ::geteuid() && facts.st_uid != 0) {
        refuse(path, "it belongs to another user");
    }
}

/// What is at @p path, opened. A FIFO that was put in its place holds nobody up.
UniqueFd openedWithoutWait(const std::string& path, int more) {
    return UniqueFd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY | more));
}

/// As much as is asked for, unless the file ends before. @return how much.
std::size_t readInto(int fd, char* buffer, std::size_t size, const std::string& name) {
    std::size_t length = 0;
    while (length < size) {
        const ssize_t got = ::read(fd, buffer + length, size - length);
        if (got == 0) {
            break;
        }
        if (got < 0 && errno != EINTR) {
            failFile(errno, name, "cannot be read");
        }
        length += got > 0 ? static_cast<std::size_t>(got) : 0;
    }
    return length;
}

} // namespace

std::string readUpTo(int fd, std::size_t maxBytes, const std::string& name) {
    constexpr std::size_t firstBuffer = std::size_t{64} << 10;
    const std::size_t most = std::min(maxBytes, std::string().max_size() - 1);
    std::string bytes;
    std::size_t length = 0;
    do {
        // One byte more than the limit shows that there is more.
        bytes.resize(std::min(most + 1, std::max(bytes.size() * 2, firstBuffer + 1)));
        length += readInto(fd, bytes.data() + length, bytes.size() - length, name);
    } while (length == bytes.size() && length <= most);
    if (length > most) {
        failFile(EFBIG, name, ("is too large: it has more than " + std::to_string(maxBytes) + " bytes").c_str());
    }
    bytes.resize(length);
    return bytes;
}

std::string readFileOrInput(const std::string& name, int inputFd, std::size_t maxBytes) {
    if (name == "-") {
        return readUpTo(inputFd, maxBytes, "standard input");
    }
    const UniqueFd file(::open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!file.isOpen()) {
        failFile(errno, name, "cannot be opened");
    }
    return readUpTo(file.get(), maxBytes, name);
}

std::string readRegularFile(const std::string& path, std::size_t maxBytes, FileAccess access, Links links) {
    UniqueFd file = openedWithoutWait(path, links == Links::Follow ? 0 : O_NOFOLLOW);
    const bool isLink = !file.isOpen() && errno == ELOOP && links == Links::FollowToPublic;
    if (isLink) {
        file = openedWithoutWait(path, 0);
    }
    struct stat facts {};
    if (!file.isOpen() || ::fstat(file.get(), &facts) != 0) {
        failFile(errno, path, "cannot be opened");
    }
    if (!S_ISREG(facts.st_mode)) {
        failFile(EINVAL, path, "is not a regular file");
    }
    // Of the file that is open: the link may have been changed meanwhile.
    if (isLink && (facts.st_mode & S_IROTH) == 0) {
        refuse(path, "it is a link to a file that not every user may read");
    }
    checkAccess(facts, access, path);
    return readUpTo(file.get(), maxBytes, path);
}

void requireOwnerAlone(const std::string& path) {
    struct stat facts {};
    if (::stat(path.c_str(), &facts) != 0) {
        failFile(errno, path, "cannot be opened");
    }
    checkAccess(facts, FileAccess::OwnerAlone, path);
}

} // namespace Sentrel
