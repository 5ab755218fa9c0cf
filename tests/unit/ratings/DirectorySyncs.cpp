#include "tests/unit/ratings/DirectorySyncs.h"

#include <filesystem>

namespace testing_support {

std::function<void(const std::string& directory)> g_onDirectorySync;

} // namespace testing_support

extern "C" {

int __real_fsync(int fd);

int __wrap_fsync(int fd) {
    const std::string path = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd));
    if (testing_support::g_onDirectorySync && std::filesystem::is_directory(path)) {
        testing_support::g_onDirectorySync(path);
    }
    return __real_fsync(fd);
}

} // extern "C"
