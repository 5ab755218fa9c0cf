#include "tests/support/PrivateRoot.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace testing_support {
namespace {

constexpr auto kMode = std::filesystem::perms{0755};

void makeDirectories(const std::filesystem::path& root, const std::filesystem::path& relative) {
    std::filesystem::path path = root;
    for (const std::filesystem::path& part : relative) {
        path /= part;
        std::filesystem::create_directory(path);
        // Whatever the umask says.
        std::filesystem::permissions(path, kMode);
    }
}

} // namespace

PrivateRoot::PrivateRoot() {
    std::filesystem::permissions(path(), kMode);
    for (const char* directory : {"Users/Shared/.orvanta", "usr/local/Orvanta/Sentrel/var", "usr/local/Orvanta/hvb/var",
                                  "usr/local/Orvanta/hvb/config/Sentrel"}) {
        makeDirectories(path(), directory);
    }
}

void PrivateRoot::giveTo(const std::string& path, uid_t uid, gid_t gid) {
    if (::lchown(path.c_str(), uid, gid) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot give away " + path);
    }
}

} // namespace testing_support
