// The daemon serves one connection at a time: it reads once, deals with the record, closes. So the end of a connection
// says whether the record was read: an ordinary end says that it was, a reset that it was not.
//
// What must stay so:
// - A record that was written is not written again before its connection has ended: a daemon that is held up reads it
//   later, and would read it twice.
// - A record leaves in one write. It is smaller than any socket's buffer.
// - One connection at a time. The daemon's listening queue is short, and other users' browsers stand in it.
#include "browser/host/ReportQueue.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace Sentrel::host {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kFirstReportPause{50};
constexpr milliseconds kLastReportPause{1000};

} // namespace

void ReportQueue::add(const STEventData& record) {
    if (m_records.size() >= kMaxQueuedReports) {
        m_records.erase(m_records.begin() + (m_connection.isOpen() ? 1 : 0));
        if (m_lost++ == 0) {
            m_tell(fmt::format("{} reports wait for the daemon already; from now on the oldest are dropped",
                               kMaxQueuedReports));
        }
    }
    m_records.push_back(record);
}

ReportQueue::Time ReportQueue::until() const {
    return m_records.empty() || m_connection.isOpen() ? Time::max() : m_next;
}

void ReportQueue::proceed() {
    while (!m_records.empty()) {
        if (m_connection.isOpen()) {
            if (!isRead()) {
                return;
            }
        } else if (steady_clock::now() < m_next || !connect()) {
            return;
        }
    }
}

/// Connects and writes the first record. @return false when that is to be tried again later.
bool ReportQueue::connect() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (m_path.size() >= sizeof(address.sun_path)) {
        tryAgain("connect", ENAMETOOLONG);
        return false;
    }
    std::copy(m_path.begin(), m_path.end(), address.sun_path);
    UniqueFd connection(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!connection.isOpen() ||
        ::connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        tryAgain("connect", errno);
        return false;
    }
    const ssize_t sent = ::send(connection.get(), &m_records.front(), sizeof(STEventData), MSG_NOSIGNAL);
    if (sent != static_cast<ssize_t>(sizeof(STEventData))) {
        tryAgain("write", sent < 0 ? errno : EMSGSIZE);
        return false;
    }
    m_connection = std::move(connection);
    return true;
}

/// Whether the record under way needs no more waiting: it was read and is done, or is to be sent again.
bool ReportQueue::isRead() {
    char rest = 0;
    const ssize_t got = ::recv(m_connection.get(), &rest, sizeof rest, MSG_DONTWAIT);
    if (got > 0 || (got < 0 && (errno == EAGAIN || errno == EINTR))) {
        return false; // nobody says anything here
    }
    const int error = got < 0 ? errno : 0;
    m_connection.reset();
    if (error != 0) {
        tryAgain("have it read", error);
        return true;
    }
    m_records.pop_front();
    m_pause = milliseconds(0);
    m_hasToldTrouble = false;
    return true;
}

void ReportQueue::tryAgain(const char* what, int error) {
    m_pause = std::clamp(m_pause * 2, kFirstReportPause, kLastReportPause);
    m_next = steady_clock::now() + m_pause;
    if (error != EAGAIN && !std::exchange(m_hasToldTrouble, true)) {
        m_tell(fmt::format("cannot {} at {}: {}; reports wait", what, m_path, std::system_category().message(error)));
    }
}

} // namespace Sentrel::host
