#include "apps/hvbd/StoreFile.h"

#include "base/UniqueFd.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <system_error>

namespace HVB::hub {
namespace {

/// The texts of reports are a person's browsing history: the owner's, and its group's to read.
constexpr mode_t kStoreMode = 0640;

[[noreturn]] void fail(int error) {
    throw std::system_error(error, std::system_category());
}

/// Opens what stands at the path, or makes it. Does not wait when a FIFO is in its place.
Sentrel::UniqueFd openOrMake(const std::string& path) {
    const int flags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY;
    Sentrel::UniqueFd existing(open(path.c_str(), flags));
    if (existing.isOpen() || errno != ENOENT) {
        return existing;
    }
    Sentrel::UniqueFd made(open(path.c_str(), flags | O_CREAT | O_EXCL, kStoreMode));
    if (made.isOpen()) {
        // Past the umask. A file system without modes keeps its own.
        static_cast<void>(fchmod(made.get(), kStoreMode));
    }
    return made;
}

} // namespace

std::optional<FileFacts> regularFileAt(const std::string& path) {
    struct stat facts {};
    if (lstat(path.c_str(), &facts) != 0 || !S_ISREG(facts.st_mode) || facts.st_nlink == 0) {
        return std::nullopt;
    }
    return FileFacts{{facts.st_dev, facts.st_ino}, facts.st_size};
}

std::string resolvedDirectory(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    struct Free {
        void operator()(char* text) const noexcept { std::free(text); }
    };
    const std::unique_ptr<char, Free> resolved(realpath(directory.c_str(), nullptr));
    if (resolved == nullptr) {
        fail(errno);
    }
    return std::string(resolved.get()) + "/" + name;
}

FileIdentity makeStoreFile(const std::string& path) {
    const Sentrel::UniqueFd file = openOrMake(path);
    struct stat facts {};
    if (!file.isOpen() || fstat(file.get(), &facts) != 0) {
        fail(errno);
    }
    if (!S_ISREG(facts.st_mode)) {
        fail(EINVAL);
    }
    return {facts.st_dev, facts.st_ino};
}

} // namespace HVB::hub
