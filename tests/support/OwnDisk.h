// A file system in memory, which a test can fill or take away.
#pragma once

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

namespace testing_support {

/// Gives a directory a file system in memory for this object's lifetime. Only this process and its children see it, so
/// that it goes away with them whatever happens to the test.
/// Threads: the test's. Owner: a test's fixture; nothing may use the directory any more when it ends.
class OwnDisk {
public:
    OwnDisk() = default;
    OwnDisk(const OwnDisk&) = delete;
    OwnDisk& operator=(const OwnDisk&) = delete;
    ~OwnDisk() { unmount(); }

    /// @param options as mount takes them for a tmpfs. @return why it cannot be done, as without root; empty when it
    /// is.
    std::string mount(std::string directory, const char* options) {
        if (::geteuid() != 0) {
            return "only root can mount a file system";
        }
        if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            return std::string("no mounts of our own here: ") + std::strerror(errno);
        }
        if (::mount("tmpfs", directory.c_str(), "tmpfs", 0, options) != 0) {
            return std::string("cannot mount a tmpfs: ") + std::strerror(errno);
        }
        m_directory = std::move(directory);
        return "";
    }
    bool isMounted() const { return !m_directory.empty(); }
    /// Requires that nothing uses it any more. Does nothing when it is not mounted.
    void unmount() {
        if (isMounted()) {
            ::umount(m_directory.c_str());
            m_directory.clear();
        }
    }

    /// Writes a file until nothing more fits.
    void fill() const {
        std::ofstream filler(m_directory + "/filler", std::ios::binary);
        while (filler << std::string(1024, 'f') << std::flush) {
        }
    }
    /// Removes what fill wrote.
    void free() const { std::filesystem::remove(m_directory + "/filler"); }

private:
    std::string m_directory;
};

} // namespace testing_support
