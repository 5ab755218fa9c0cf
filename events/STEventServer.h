// The socket on which browser components report what they blocked, warned of or allowed.
#pragma once

#include <pthread.h>

#include <boost/thread/mutex.hpp>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>

namespace Sentrel {

/// Owns the event socket and the one thread that serves it, one connection at a time in the order of acceptance. A
/// connection carries one message, in one write, and is closed behind it: an event record, or "Decrypt " and a text.
/// Every local user may connect; nothing in a message is trusted.
/// Threads: main creates, starts and releases it; the thread serves. Owner: a singleton, created by VXController::main
/// and released by the controller's destructor.
class STEventServer {
public:
    /// Creates the server on the first call, socket included. A server whose socket could not be set up exists, says
    /// why in the trace log, and does nothing.
    static STEventServer* getInstance();
    /// Ends the thread and frees the server. A client that is connected and silent is waited for.
    static void releaseInstance();
    virtual ~STEventServer();
    STEventServer(const STEventServer&) = delete;
    STEventServer& operator=(const STEventServer&) = delete;

    /// Starts the thread, when the socket is ready.
    void start();

    static void* run(void* server);

    /// Waits for clients until the server is told to stop.
    void monitorFd();

    /// Serves one connection. Throws nothing.
    void processSocketEvent();

    /// Serves one message as it came from a client: an event goes to the reporter, a decrypt request is answered on
    /// @p client. No message is longer than 1024 bytes; a short one is filled up with zeros.
    static void processMessage(int client, std::span<const char> message);

private:
    STEventServer();

    bool removeStaleNode() const;
    bool openSocket();
    bool mayGoOnAfterSelectFailed(int error) const;
    void waitAfterFailedAccept(int error) const;

    // Written by main before the thread exists and after it has ended.
    pthread_t m_thread{};
    std::int32_t m_socketFd = -1;
    bool m_bReady = false;

    static STEventServer* m_pSTEventServer;
    static boost::mutex m_instanceMutex;
    static std::atomic<bool> m_stop; // set by the destructor, read by the thread
};

} // namespace Sentrel
