// Who is at the other end of a socket, as the system tells it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace Sentrel::ctl {

/// The clients that the listener at a Unix socket's path has taken and not let go.
/// Threads: a plain value. Owner: the holder.
struct TakenClients {
    std::size_t count = 0;
    std::vector<pid_t> processes; ///< those that this user may see; never this process itself
};

/// Asks the system for the clients of the Unix socket at @p path. It asks nobody else, so that this works whatever the
/// listener does. Nobody when the system does not tell.
TakenClients takenClients(const std::string& path);

/// The processes whose command begins so and that listen at @p path, also those from which another took it. Without
/// those whose descriptors this user may not see.
std::vector<pid_t> listeningProcesses(const std::string& path, std::string_view command);

/// Whether a process has a TCP connection to that port somewhere. None when this user may not see its descriptors.
std::optional<bool> hasConnectionTo(pid_t process, std::uint16_t port);

/// "firefox (1234)", or the number alone when the process has no name to be seen.
std::string processText(pid_t process);

/// The name of a process' command; empty when it has ended or is not to be seen.
std::string commandOf(pid_t process);

/// The first line of a short file; empty when it cannot be read or is long.
std::string firstLineOf(const std::string& path);

} // namespace Sentrel::ctl
