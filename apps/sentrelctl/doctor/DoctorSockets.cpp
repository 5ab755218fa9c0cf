// Whose sockets these are. /proc/net/unix tells neither the peer nor the process, so the kernel is asked by netlink
// (sock_diag), as ss does; the processes are then found by the inodes of their descriptors.
//
// What must stay so:
// - A connection that waits in the listener's queue has no inode on the listener's side. Those with one were taken.
// - Descriptors of other users' processes are root's to see. Without that there is a number of clients and no name.
#include "apps/sentrelctl/doctor/DoctorSockets.h"

#include "base/FileReading.h"
#include "base/UniqueFd.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <set>
#include <sstream>
#include <string_view>
#include <sys/socket.h>
#include <sys/time.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace Sentrel::ctl {
namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t kEstablished = 1; // TCP's number, which Unix sockets use too
constexpr std::size_t kReplyBytes = std::size_t{64} << 10U;

struct DiagRequest {
    nlmsghdr head;
    unix_diag_req body;
};

bool askForConnections(int netlink) {
    DiagRequest request{};
    request.head.nlmsg_len = sizeof request;
    request.head.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    request.head.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.body.sdiag_family = AF_UNIX;
    request.body.udiag_states = 1U << kEstablished;
    request.body.udiag_show = UDIAG_SHOW_NAME | UDIAG_SHOW_PEER;
    return ::send(netlink, &request, sizeof request, 0) == static_cast<ssize_t>(sizeof request);
}

/// The next record of a netlink text, and behind its head what it holds; taken off @p rest. Both kinds of heads begin
/// with their length. None at the end, and at what cannot be one.
template <class Head, class Length>
std::optional<std::pair<Head, std::string_view>> takeNext(std::string_view& rest, Length Head::*length) {
    constexpr std::size_t alignment = 4;
    Head head{};
    if (rest.size() < sizeof head) {
        return std::nullopt;
    }
    std::memcpy(&head, rest.data(), sizeof head);
    const std::size_t size = head.*length;
    if (size < sizeof head || size > rest.size()) {
        return std::nullopt;
    }
    const std::string_view data = rest.substr(sizeof head, size - sizeof head);
    rest.remove_prefix(std::min(rest.size(), (size + alignment - 1) / alignment * alignment));
    return std::pair(head, data);
}

/// The inode of the peer, when this is a taken connection of the listener at @p path.
std::optional<std::uint32_t> takenPeer(std::string_view message, const std::string& path) {
    unix_diag_msg connection{};
    if (message.size() < sizeof connection) {
        return std::nullopt;
    }
    std::memcpy(&connection, message.data(), sizeof connection);
    message.remove_prefix(sizeof connection);
    std::string_view name;
    std::uint32_t peer = 0;
    while (const auto each = takeNext(message, &rtattr::rta_len)) {
        const auto& [head, data] = *each;
        if (head.rta_type == UNIX_DIAG_NAME) {
            name = data.substr(0, data.find('\0'));
        } else if (head.rta_type == UNIX_DIAG_PEER && data.size() >= sizeof peer) {
            std::memcpy(&peer, data.data(), sizeof peer);
        }
    }
    const bool isTaken = connection.udiag_ino != 0 && name == path && peer != 0;
    return isTaken ? std::optional(peer) : std::nullopt;
}

/// Adds the clients' inodes in a part of the answer. @return whether there is more.
bool addClients(std::string_view answer, const std::string& path, std::set<std::uint64_t>& inodes) {
    while (const auto each = takeNext(answer, &nlmsghdr::nlmsg_len)) {
        if (each->first.nlmsg_type == NLMSG_DONE || each->first.nlmsg_type == NLMSG_ERROR) {
            return false;
        }
        if (const auto peer = takenPeer(each->second, path)) {
            inodes.insert(*peer);
        }
    }
    return true;
}

/// The inodes of the clients' ends.
std::set<std::uint64_t> clientInodes(const std::string& path) {
    std::set<std::uint64_t> inodes;
    const UniqueFd netlink(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    const timeval patience{1, 0};
    if (!netlink.isOpen() || ::setsockopt(netlink.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience) != 0 ||
        !askForConnections(netlink.get())) {
        return inodes;
    }
    std::string reply(kReplyBytes, '\0');
    for (;;) {
        const ssize_t got = ::recv(netlink.get(), reply.data(), reply.size(), 0);
        if (got <= 0 || !addClients(std::string_view(reply).substr(0, static_cast<std::size_t>(got)), path, inodes)) {
            return inodes;
        }
    }
}

std::optional<std::uint64_t> numberIn(std::string_view text, int base = 10) {
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

/// The inodes of a process' sockets. None when they are not this user's to see.
std::optional<std::set<std::uint64_t>> socketsOf(pid_t process) {
    constexpr std::string_view form = "socket:[";
    std::set<std::uint64_t> inodes;
    std::error_code error;
    fs::directory_iterator descriptors(fmt::format("/proc/{}/fd", process), error);
    if (error) {
        return std::nullopt;
    }
    for (; !error && descriptors != fs::directory_iterator(); descriptors.increment(error)) {
        std::error_code gone;
        const std::string target = fs::read_symlink(descriptors->path(), gone).string();
        if (!gone && target.starts_with(form)) {
            const std::string_view digits = std::string_view(target).substr(form.size());
            inodes.insert(numberIn(digits.substr(0, digits.find(']'))).value_or(0));
        }
    }
    return inodes;
}

bool haveCommon(const std::set<std::uint64_t>& some, const std::set<std::uint64_t>& others) {
    return std::any_of(some.begin(), some.end(), [&](std::uint64_t each) { return others.count(each) > 0; });
}

/// The inodes of the established connections to that port, from a table of the system.
std::set<std::uint64_t> connectionsTo(std::uint16_t port, const char* table) {
    constexpr std::size_t largest = std::size_t{16} << 20U;
    constexpr int hexadecimal = 16;
    std::set<std::uint64_t> inodes;
    std::string text;
    try {
        text = readRegularFile(table, largest, FileAccess::Anybody);
    } catch (const std::system_error&) {
        return inodes; // a system without that family of addresses
    }
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string slot, local, remote, state, queues, timer, retries, user, timeout, inode;
        words >> slot >> local >> remote >> state >> queues >> timer >> retries >> user >> timeout >> inode;
        const std::size_t colon = remote.find(':');
        if (state == "01" && colon != std::string::npos && numberIn(remote.substr(colon + 1), hexadecimal) == port) {
            inodes.insert(numberIn(inode).value_or(0));
        }
    }
    inodes.erase(0);
    return inodes;
}

/// The inodes of the sockets that listen at that path, where a process is. One that another took the path from keeps it
/// in this table.
std::set<std::uint64_t> listenersWhere(pid_t process, const std::string& path) {
    constexpr std::size_t largest = std::size_t{16} << 20U;
    std::set<std::uint64_t> inodes;
    std::string text;
    try {
        text = readRegularFile(fmt::format("/proc/{}/net/unix", process), largest, FileAccess::Anybody);
    } catch (const std::system_error&) {
        return inodes; // it has ended meanwhile
    }
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string address, references, protocol, flags, type, state, inode, name;
        words >> address >> references >> protocol >> flags >> type >> state >> inode >> std::ws;
        if (std::getline(words, name) && flags == "00010000" && name == path) { // __SO_ACCEPTCON: it listens
            inodes.insert(numberIn(inode).value_or(0));
        }
    }
    inodes.erase(0);
    return inodes;
}

std::vector<pid_t> allProcesses() {
    std::vector<pid_t> all;
    std::error_code error;
    for (fs::directory_iterator each("/proc", error); !error && each != fs::directory_iterator();
         each.increment(error)) {
        if (const auto process = numberIn(each->path().filename().string())) {
            all.push_back(static_cast<pid_t>(*process));
        }
    }
    return all;
}

} // namespace

std::vector<pid_t> listeningProcesses(const std::string& path, std::string_view command) {
    std::vector<pid_t> found;
    for (const pid_t process : allProcesses()) {
        if (!commandOf(process).starts_with(command)) {
            continue;
        }
        const auto sockets = socketsOf(process);
        if (sockets && haveCommon(*sockets, listenersWhere(process, path))) {
            found.push_back(process);
        }
    }
    return found;
}

TakenClients takenClients(const std::string& path) {
    const std::set<std::uint64_t> inodes = clientInodes(path);
    TakenClients clients{inodes.size(), {}};
    if (inodes.empty()) {
        return clients;
    }
    for (const pid_t pid : allProcesses()) {
        const auto sockets = socketsOf(pid);
        if (!sockets || !haveCommon(*sockets, inodes)) {
            continue;
        }
        if (pid == ::getpid()) {
            --clients.count;
        } else {
            clients.processes.push_back(pid);
        }
    }
    return clients;
}

std::optional<bool> hasConnectionTo(pid_t process, std::uint16_t port) {
    const auto sockets = socketsOf(process);
    if (!sockets) {
        return std::nullopt;
    }
    const std::string net = fmt::format("/proc/{}/net/", process);
    return haveCommon(*sockets, connectionsTo(port, (net + "tcp").c_str())) ||
           haveCommon(*sockets, connectionsTo(port, (net + "tcp6").c_str()));
}

std::string firstLineOf(const std::string& path) {
    constexpr std::size_t longest = 4096;
    try {
        const std::string text = readRegularFile(path, longest, FileAccess::Anybody);
        return text.substr(0, text.find('\n'));
    } catch (const std::system_error&) {
        return {}; // the caller tells what it means that there is nothing
    }
}

std::string commandOf(pid_t process) {
    return firstLineOf(fmt::format("/proc/{}/comm", process));
}

std::string processText(pid_t process) {
    const std::string command = commandOf(process);
    return command.empty() ? std::to_string(process) : fmt::format("{} ({})", command, process);
}

} // namespace Sentrel::ctl
