// The system log's socket in a test's own hands. What a program writes to it is real; only its reader is the test.
#pragma once

#include "tests/support/UnixSocket.h"

#include <sys/mount.h>
#include <sys/socket.h>

#include <sched.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

namespace testing_support {

/// "/dev/log" for this process and the children that it starts from now on: a /dev of their own, in a mount namespace
/// of their own, with the few devices that a program needs. Ends with this object, and in any case with the process.
/// Threads: one at a time, the one that made it starts the children. Owner: the test.
class SystemLogSocket {
public:
    /// @param directory an empty place for the /dev while it is made. @throws std::runtime_error when that cannot be
    /// had; requires root.
    explicit SystemLogSocket(const std::string& directory) {
        require(unshare(CLONE_NEWNS) == 0, "unshare");
        require(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "make the mounts private");
        std::filesystem::create_directory(directory);
        require(mount("tmpfs", directory.c_str(), "tmpfs", 0, "size=64k") == 0, "mount a tmpfs");
        for (const char* name : {"null", "zero", "full", "random", "urandom"}) {
            const std::string device = directory + "/" + name;
            std::ofstream(device) << "";
            require(mount(("/dev/" + std::string(name)).c_str(), device.c_str(), nullptr, MS_BIND, nullptr) == 0, name);
        }
        std::filesystem::create_symlink("/proc/self/fd", directory + "/fd");
        require(mount(directory.c_str(), "/dev", nullptr, MS_MOVE, nullptr) == 0, "move it to /dev");
        m_mounted = true;
        require(m_socket >= 0, "socket");
        require(bindSocket(m_socket, "/dev/log"), "bind /dev/log");
    }
    ~SystemLogSocket() {
        close(m_socket);
        if (m_mounted) {
            umount2("/dev", MNT_DETACH);
        }
    }
    SystemLogSocket(const SystemLogSocket&) = delete;
    SystemLogSocket& operator=(const SystemLogSocket&) = delete;

    /// The lines that came since the last call: facility and severity as one number, then what the program said.
    /// Requires a call after every few lines, since a writer waits when some ten are unread.
    std::vector<std::string> lines() {
        std::vector<std::string> found;
        std::array<char, 8192> buffer{};
        for (;;) {
            const ssize_t size = recv(m_socket, buffer.data(), buffer.size(), MSG_DONTWAIT);
            if (size < 0) {
                return found;
            }
            const std::string datagram(buffer.data(), static_cast<std::size_t>(size));
            static const std::regex form(R"(<(\d+)>.{15} [\w-]+(?:\[\d+\])?: (.*))");
            found.push_back(std::regex_replace(datagram, form, "$1 $2"));
        }
    }

private:
    static void require(bool holds, const char* what) {
        if (!holds) {
            throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
        }
    }

    const int m_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    bool m_mounted = false;
};

} // namespace testing_support
