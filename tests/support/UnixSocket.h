// Unix sockets at a path of the file system.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <string>

namespace testing_support {

/// The address of @p path, cut where an address has no more room.
inline sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

/// @return whether it is bound; errno says why it is not.
inline bool bindSocket(int fd, const std::string& path) {
    const sockaddr_un address = addressOf(path);
    return ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

/// @return whether it is connected; errno says why it is not.
inline bool connectSocket(int fd, const std::string& path) {
    const sockaddr_un address = addressOf(path);
    return ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

} // namespace testing_support
