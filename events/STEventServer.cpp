// The browser's socket: one thread, one client at a time, one read for each.
//
// A client connects, writes a record or a decrypt request, and is served before the next one is accepted. Clients that
// come meanwhile wait in the listening queue. One read is all: what a client sends in pieces counts as far as the first
// piece goes, and the rest of the message is zero, so that no byte of an earlier client shows in a later report.
//
// What must stay so:
// - The socket belongs to everybody (0777), as any user's browser has to reach it: nothing that arrives is trusted.
// - SIGPIPE is blocked before the thread is made, which inherits it: a client that has gone is a failed write.
// - The thread is stopped by m_stop and then by shutdown, which wakes select; closing alone does not. The descriptor is
//   closed after the thread has gone, or another open of the process could get its number while select still waits.
// - Without a descriptor for the next client there is a tenth of a second between two tries, or their traces would fill
//   the disk.
// - A client that is connected and silent holds up the others, and the stop too.
#include "events/STEventServer.h"

#include "base/Paths.h"
#include "base/SignalSet.h"
#include "base/WipeAtEnd.h"
#include "daemon/Trace.h"
#include "events/EventReporter.h"
#include "events/STEventData.h"
#include "managed/VXHVBAgentWrapper.h"

#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <boost/thread/lock_guard.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <string_view>
#include <tuple>

namespace Sentrel {

using trace::printable;

STEventServer* STEventServer::m_pSTEventServer = nullptr;
boost::mutex STEventServer::m_instanceMutex;
std::atomic<bool> STEventServer::m_stop{false};

namespace {

constexpr std::size_t kLargestMessage = 1024; // bytes, of a request and of a decrypt reply
constexpr std::string_view kDecryptRequest = "Decrypt ";

/// A message at its full size, zero behind what arrived.
using Message = std::array<char, kLargestMessage>;

/// The text from @p offset up to its terminator, or to the end of what there is.
std::string textAt(std::span<const char> bytes, std::size_t offset) {
    const std::span<const char> rest = bytes.subspan(offset);
    return std::string(rest.data(), strnlen(rest.data(), rest.size()));
}

template <std::size_t Size>
std::string fieldText(const char (&field)[Size]) {
    return printable(textAt(field, 0));
}

void traceRecord(const STEventData& event) {
    ST_TRACE(ipcFlow, 3, L"------------------ EVENT SERVER RECIEVED DATA ------------------\n");
    ST_TRACE(ipcFlow, 4, L"STEventServer::processSocketEvent - Event ID - %s \n", fieldText(event.eventId).c_str());
    ST_TRACE(ipcFlow, 4, L"STEventServer::processSocketEvent - URL - %s \n", fieldText(event.url).c_str());
    ST_TRACE(ipcFlow, 4, L"STEventServer::processSocketEvent - BrowserProcess Name - %s \n",
             fieldText(event.browserProcessName).c_str());
    ST_TRACE(ipcFlow, 4, L"STEventServer::processSocketEvent - URL rating - %d \n", event.urlRating);
    ST_TRACE(ipcFlow, 4, L"STEventServer::processSocketEvent - URL In AllowBlock List - %d \n", event.inAllowBlockList);
    ST_TRACE(ipcFlow, 4, L"STEventServer::processSocketEvent - Blocked In AllowBlock List - %d \n",
             event.blockedInAllowBlockList);
    ST_TRACE(ipcFlow, 4, L"STEventServer::processSocketEvent - Blocked In Category - %d \n", event.blockedInCategory);
    ST_TRACE(ipcFlow, 4, L"STEventServer::processSocketEvent - Blocked In CategoryID - %d \n", event.blockedCategoryId);
    ST_TRACE(ipcFlow, 4, L"STEventServer::processSocketEvent - Is Phishing URL - %d \n", event.isPhishing);
    ST_TRACE(ipcFlow, 4, L"STEventServer::processSocketEvent - Is RPX Reachable - %d \n", event.isRpxReachable);
    ST_TRACE(ipcFlow, 3, L"------------------ END ------------------\n");
}

void answerDecryptRequest(int client, const Message& message) {
    const std::string encPass = textAt(message, kDecryptRequest.size());
    std::string clearText = VXHVBAgentWrapper::getInstance()->decrpytPass(encPass);
    const WipeAtEnd wiped(clearText);
    Message reply{};
    std::strncpy(reply.data(), clearText.c_str(), std::min(clearText.size(), reply.size()));
    ST_TRACE(ipcFlow, 4, L"STEventServer::processSocketEvent - encPass: %s\n", printable(encPass).c_str());
    std::ignore = write(client, reply.data(), reply.size()); // a client that has gone wants no answer
    explicit_bzero(reply.data(), reply.size());
}

void reportEvent(const Message& message) {
    STEventData event{};
    std::memcpy(&event, message.data(), sizeof event);
    traceRecord(event);
    EventReporter::getInstance()->sendSTEvent(event);
}

} // namespace

STEventServer* STEventServer::getInstance() {
    const boost::lock_guard<boost::mutex> lock(m_instanceMutex);
    if (m_pSTEventServer == nullptr) {
        m_pSTEventServer = new STEventServer;
    }
    return m_pSTEventServer;
}

void STEventServer::releaseInstance() {
    ST_TRACE(ipcFlow, 2, L"STEventServer::releaseInstance - Invoked \n");
    const boost::lock_guard<boost::mutex> lock(m_instanceMutex);
    delete m_pSTEventServer;
    m_pSTEventServer = nullptr;
    ST_TRACE(ipcFlow, 5, L"STEventServer::releaseInstance - Completed \n");
}

STEventServer::STEventServer() {
    ST_TRACE(ipcFlow, 2, L"STEventServer::STEventServer - Entered\n");
    // A write to a client that has gone must fail and not end the daemon. The thread inherits this.
    SignalSet{SIGPIPE}.block();
    m_bReady = removeStaleNode() && openSocket();
}

bool STEventServer::removeStaleNode() const {
    const std::string path = paths::eventSocket();
    struct stat status {};
    if (stat(path.c_str(), &status) == 0) {
        if (unlink(path.c_str()) != 0) {
            ST_TRACE(ipcFlow, 1, L"STEventServer::STEventServer - Error unlinking the existing socket node\n");
            return false;
        }
        return true;
    }
    if (errno == ENOENT) {
        ST_TRACE(ipcFlow, 3, L"STEventServer::STEventServer -  result code No file of the same path: do nothing\n");
        return true;
    }
    const int error = errno;
    ST_TRACE(ipcFlow, 1, L"STEventServer::STEventServer Error in Select errno = %d and error = %s\n", error,
             std::strerror(error));
    return false;
}

bool STEventServer::openSocket() {
    constexpr mode_t everybody = 0777;
    constexpr int backlog = 5;
    const std::string path = paths::eventSocket();
    m_socketFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_socketFd < 0 || m_socketFd >= FD_SETSIZE) { // select cannot wait for a larger one
        const int error = m_socketFd < 0 ? errno : EMFILE;
        ST_TRACE(ipcFlow, 1,
                 L"STEventServer::STEventServer - Create socket() system call failed with errno=%d and error=%s\n",
                 error, std::strerror(error));
        return false;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    // A path that is cut would bind some other name.
    const bool fits = path.size() < sizeof address.sun_path;
    std::memcpy(address.sun_path, path.data(), fits ? path.size() : 0);
    const int result = fits ? bind(m_socketFd, reinterpret_cast<const sockaddr*>(&address), sizeof address) : -1;
    if (result != 0) {
        const int error = fits ? errno : ENAMETOOLONG;
        ST_TRACE(ipcFlow, 1,
                 L"STEventServer::STEventServer - Error in binding to server socket with retCode - %d, - errno - %d "
                 L"and error - %s\n",
                 result, error, std::strerror(error));
        return false;
    }
    if (chmod(path.c_str(), everybody) != 0) {
        ST_TRACE(ipcFlow, 1, L"STEventServer::STEventServer - Error in changing permission\n");
        return false;
    }
    if (listen(m_socketFd, backlog) != 0) {
        ST_TRACE(ipcFlow, 1, L"STEventServer::STEventServer - Error in registering listener to socket\n");
        return false;
    }
    return true;
}

STEventServer::~STEventServer() {
    ST_TRACE(ipcFlow, 2, L"STEventServer::~STEventServer - Entered\n");
    m_stop = true;
    if (m_socketFd != -1) {
        ST_TRACE(ipcFlow, 3, L"STEventServer::~STEventServer - closing socket\n");
        // Wakes the thread out of select, which closing alone does not. The number is closed only when the thread is
        // gone: until then nobody else may get it.
        shutdown(m_socketFd, SHUT_RDWR);
    }
    if (m_thread != pthread_t{}) {
        ST_TRACE(ipcFlow, 3, L"STEventServer::~STEventServer - waiting for pthread to terminate\n");
        pthread_join(m_thread, nullptr);
    }
    if (m_socketFd != -1) {
        close(m_socketFd);
        m_socketFd = -1;
    }
    ST_TRACE(ipcFlow, 4, L"STEventServer::~STEventServer - Completed\n");
}

void STEventServer::start() {
    ST_TRACE(ipcFlow, 2, L"STEventServer::start - Entered\n");
    if (!m_bReady) {
        ST_TRACE(ipcFlow, 1,
                 L"STEventServer::start - Error unable on start Event Server as socket connection is not ready\n");
        return;
    }
    ST_TRACE(ipcFlow, 3, L"STEventServer::start - invoking run on a seperate thread\n");
    if (pthread_create(&m_thread, nullptr, run, this) != 0) {
        m_thread = pthread_t{}; // nothing to join; without the thread only browser events are missing
    }
}

void* STEventServer::run(void* server) {
    ST_TRACE(ipcFlow, 2, L"STEventServer::run loop entered\n");
    static_cast<STEventServer*>(server)->monitorFd();
    return nullptr;
}

void STEventServer::monitorFd() {
    ST_TRACE(ipcFlow, 2, L"STEventServer::monitorFd - Entered\n");
    try {
        fd_set listening;
        FD_ZERO(&listening);
        FD_SET(m_socketFd, &listening);
        while (!m_stop) {
            ST_TRACE(ipcFlow, 4, L"STEventServer::monitorFd - Inside while blocking on Select for fd %d\n", m_socketFd);
            fd_set ready = listening;
            const int result = select(m_socketFd + 1, &ready, nullptr, nullptr, nullptr);
            const int error = errno;
            ST_TRACE(ipcFlow, 3, L"STEventServer::monitorFd - select returned %d\n", result);
            if (m_stop) {
                ST_TRACE(ipcFlow, 2, L"STEventServer::monitorFd - Shutting down.\n");
                return;
            }
            if (result > 0 && FD_ISSET(m_socketFd, &ready)) {
                ST_TRACE(ipcFlow, 3, L"STEventServer::run - FD is set so read the data from socket\n");
                processSocketEvent();
            } else if (result == 0) {
                ST_TRACE(ipcFlow, 5, L"STEventServer::monitorFd - select timeout so continue\n");
            } else if (result < 0 && !mayGoOnAfterSelectFailed(error)) {
                return;
            }
        }
    } catch (...) {
        ST_TRACE(ipcFlow, 1, L"STEventServer::monitorFds - Got unkown excpetion \n");
    }
}

bool STEventServer::mayGoOnAfterSelectFailed(int error) const {
    ST_TRACE(ipcFlow, 1, L"STEventServer::monitorFds - errno = %d and error = %s\n", error, std::strerror(error));
    if (error == EINTR) {
        ST_TRACE(ipcFlow, 3, L"STEventServer::monitorFds - Interrupted system call so continue\n");
        return true;
    }
    if (error == EBADF) {
        return true;
    }
    ST_TRACE(ipcFlow, 2, L"STEventServer::monitorFds - blocking on select() failed so bail out\n");
    return false;
}

/// The client that the system has no descriptor for stays in the queue, so that select gives it at once again. Nothing
/// is polled for: a client ends the wait no sooner, and the shutdown of a stop does at once.
void STEventServer::waitAfterFailedAccept(int error) const {
    if (error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM) {
        constexpr int milliseconds = 100;
        pollfd stopped{m_socketFd, 0, 0};
        std::ignore = poll(&stopped, 1, milliseconds); // a signal may cut it short
    }
}

void STEventServer::processSocketEvent() {
    ST_TRACE(ipcFlow, 2, L"STEventServer::processSocketEvent - Entered\n");
    try {
        sockaddr_un address{};
        socklen_t addressSize = sizeof address;
        ST_TRACE(ipcFlow, 4, L"STEventServer::processSocketEvent - Going to accept a connection from client\n");
        const int client = accept4(m_socketFd, reinterpret_cast<sockaddr*>(&address), &addressSize, SOCK_CLOEXEC);
        const int error = errno;
        ST_TRACE(ipcFlow, 3, L"STEventServer::processSocketEvent - Going to read data from socket with clientFD %d\n",
                 client);
        if (client < 0) {
            ST_TRACE(ipcFlow, 1,
                     L"STEventServer::processSocketEvent - Error in accept coonection. errno = %d and error = %s\n",
                     error, std::strerror(error));
            waitAfterFailedAccept(error);
            return;
        }
        Message buffer;
        const ssize_t received = recv(client, buffer.data(), buffer.size(), 0);
        if (received <= 0) {
            ST_TRACE(ipcFlow, 3,
                     L"STEventServer::processSocketEvent - nothing to read from connection so closing session with "
                     L"client\n");
            close(client);
            return;
        }
        processMessage(client, std::span<const char>(buffer).first(static_cast<std::size_t>(received)));
        close(client);
    } catch (...) {
        ST_TRACE(ipcFlow, 1, L"STEventServer::processSocketEvent - Got unkown excpetion \n");
    }
}

void STEventServer::processMessage(int client, std::span<const char> received) {
    // Zero behind what arrived: no byte of an earlier client's message may show in a later report.
    Message message{};
    std::copy_n(received.begin(), std::min(received.size(), message.size()), message.begin());
    ST_TRACE(ipcFlow, 4, L"STEventServer::processSocketEvent - Server Received: %s at %d\n",
             printable(textAt(message, 0)).c_str(), client);
    if (std::string_view(message.data(), kDecryptRequest.size()) == kDecryptRequest) {
        answerDecryptRequest(client, message);
    } else {
        reportEvent(message);
    }
}

} // namespace Sentrel
