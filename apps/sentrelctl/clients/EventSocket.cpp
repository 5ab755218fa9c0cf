#include "apps/sentrelctl/clients/EventSocket.h"

#include "apps/sentrelctl/terminal/Failure.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <utility>

namespace Sentrel::ctl {
namespace {

constexpr const char* kConnecting = "cannot connect to the event socket";
constexpr const char* kSending = "cannot send";
constexpr const char* kReceiving = "no answer";

std::chrono::microseconds timeLeft(EventSocket::Deadline deadline) {
    const auto rest =
        std::chrono::duration_cast<std::chrono::microseconds>(deadline - std::chrono::steady_clock::now());
    // Zero would mean "for ever" to the system.
    return std::max(rest, std::chrono::microseconds(1));
}

Failure systemFailure(const char* what, const std::string& path, int number) {
    const ExitCode code = exitCodeOfErrno(number);
    const char* nextStep = code == ExitCode::NotRunning ? "Start sentreld, then try again" : "";
    return {code, what, path, errnoText(number), nextStep};
}

Failure timeoutFailure(const char* what, const std::string& path) {
    return {ExitCode::TimedOut, what, path, "the daemon did not react in time",
            "It serves one client at a time: try again, or give it longer with --timeout"};
}

} // namespace

EventSocket::EventSocket(std::string path, Deadline deadline)
    : m_path(std::move(path)), m_deadline(deadline), m_fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    if (!m_fd.isOpen()) {
        throw systemFailure(kConnecting, m_path, errno);
    }
    connectTo();
}

void EventSocket::connectTo() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (m_path.size() >= sizeof(address.sun_path)) {
        throw Failure(ExitCode::Failed, kConnecting, m_path,
                      fmt::format("a socket's path has at most {} bytes", sizeof(address.sun_path) - 1), "");
    }
    std::copy(m_path.begin(), m_path.end(), address.sun_path);
    // With its queue full the daemon lets clients wait; the send limit holds for that wait too.
    limitSending();
    while (::connect(m_fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        if (errno == EAGAIN) {
            throw timeoutFailure(kConnecting, m_path);
        }
        if (errno != EINTR) {
            throw systemFailure(kConnecting, m_path, errno);
        }
        limitSending();
    }
}

void EventSocket::limitSending() const {
    const std::chrono::microseconds rest = timeLeft(m_deadline);
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(rest);
    const timeval limit{seconds.count(), (rest - seconds).count()};
    if (::setsockopt(m_fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit)) != 0) {
        throw systemFailure(kConnecting, m_path, errno);
    }
}

std::optional<pid_t> EventSocket::listener() const {
    ucred peer{};
    socklen_t size = sizeof peer;
    const bool isKnown = ::getsockopt(m_fd.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.pid > 0;
    return isKnown ? std::optional(peer.pid) : std::nullopt;
}

void EventSocket::sendOnce(std::string_view message) {
    if (message.empty()) {
        return;
    }
    limitSending();
    const ssize_t sent = ::send(m_fd.get(), message.data(), message.size(), MSG_NOSIGNAL);
    if (sent < 0) {
        throw errno == EAGAIN ? timeoutFailure(kSending, m_path) : systemFailure(kSending, m_path, errno);
    }
    if (static_cast<std::size_t>(sent) != message.size()) {
        throw Failure(ExitCode::Failed, kSending, m_path,
                      fmt::format("the daemon took {} of {} bytes", sent, message.size()), "");
    }
}

void EventSocket::endSending() {
    ::shutdown(m_fd.get(), SHUT_WR);
} // a peer that has gone need not be told

bool EventSocket::waitReadable() const {
    for (;;) {
        const auto rest = std::chrono::ceil<std::chrono::milliseconds>(m_deadline - std::chrono::steady_clock::now());
        pollfd waiting{m_fd.get(), POLLIN, 0};
        const int ready = ::poll(&waiting, 1, static_cast<int>(std::max<std::int64_t>(rest.count(), 0)));
        if (ready >= 0) {
            return ready > 0;
        }
        if (errno != EINTR) {
            throw systemFailure(kReceiving, m_path, errno);
        }
    }
}

std::string EventSocket::receive(std::size_t size) {
    std::string received;
    while (received.size() < size) {
        if (!waitReadable()) {
            throw timeoutFailure(kReceiving, m_path);
        }
        std::array<char, 4096> part{};
        const ssize_t got = ::recv(m_fd.get(), part.data(), std::min(part.size(), size - received.size()), 0);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0 && errno != ECONNRESET) {
            throw systemFailure(kReceiving, m_path, errno);
        }
        if (got <= 0) {
            break;
        }
        received.append(part.data(), static_cast<std::size_t>(got));
    }
    return received;
}

void EventSocket::waitForClose() {
    constexpr std::size_t more = 4096;
    while (!receive(more).empty()) {
        // What a peer says here is not for us: the daemon answers an event by closing.
    }
}

} // namespace Sentrel::ctl
