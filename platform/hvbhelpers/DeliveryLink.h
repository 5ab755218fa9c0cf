// The named connection: what arrives for the module comes in here.
#pragma once

#include "base/Mutex.h"
#include "base/WakeUp.h"
#include "platform/hvbhelpers/BusConnection.h"
#include "platform/hvbhelpers/CallbackWorkers.h"
#include "platform/hvbhelpers/Carriers.h"
#include "platform/hvbhelpers/SenderDirectory.h"

#include <systemd/sd-bus.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace HVB::detail {

/// Where a link hands what arrives. All run on the link's thread with its lock held: they only pass things on, and
/// never call the link. The first two give null when they took it, otherwise the name of the error to answer with.
struct LinkReceiver {
    /// The token is the one to reply with.
    std::function<const char*(CommandMessage&&, CallbackWorkers::Lane, const Sender&)> command;
    std::function<const char*(std::uint64_t token)> healthCheck;
    std::function<void(EventMessage&&)> event;
    /// Another process has the module's name, and nothing arrives any more. Called once, on the link's thread without
    /// its lock. Must not throw.
    std::function<void()> takenOver;
};

/// One connection that carries the module's name and its subscriptions, read by a thread of its own, and made anew
/// whenever the bus comes back, until another process takes the name over. Its long story is at the top of
/// DeliveryLink.cpp. Threads: thread-safe, except that one thread at a time calls configure, connectNow, begin and end.
/// Owner: the broker.
class DeliveryLink {
public:
    using Fill = std::function<void(sd_bus_message&)>;
    using Make = std::function<bus::MessagePtr(sd_bus&)>;
    /// Gets the reply, which may be an error, with the link's lock held. Not called when the link ends first.
    using Done = std::function<void(sd_bus_message&)>;

    /// @throws HVBException when the system has no descriptor to give.
    DeliveryLink(std::string socketPath, LinkReceiver receiver);
    DeliveryLink(const DeliveryLink&) = delete;
    DeliveryLink& operator=(const DeliveryLink&) = delete;
    ~DeliveryLink() { end(); }

    /// Says whose commands to take; below 0 none. Requires that the link has never been connected.
    void configure(int moduleId);

    /// Connects on this thread. @throws HVBException when that fails; the link is then as before.
    void connectNow(bus::Deadline deadline);

    /// Makes the thread that reads, and connects whenever there is no connection. A second call does nothing.
    void begin();

    /// Joins the thread and closes the connection. For good.
    void end();

    bool hasBegun() const { return m_begun; }

    /// Returns when the link is connected. @throws HVBException with -ETIMEDOUT at the deadline.
    void awaitConnected(bus::Deadline deadline);

    /// Adds a subscription, which stays across reconnects. Without a connection it is only noted down.
    /// @throws HVBException when the bus refuses it or does not answer, or no time is left; then it is not added.
    void subscribe(std::int32_t eventId, bus::Deadline deadline);

    /// Answers the call that was handed on with @p token.
    /// @throws HVBException with -ENOENT when no such call waits, and what @p fill throws; then it waits on.
    void reply(std::uint64_t token, const Fill& fill, bus::Deadline deadline);

    /// Answers with an error, unless the call was answered already. A link that is gone needs no answer.
    /// @param handlerCode becomes the handlerCode of the other side's CallError; 0 for none.
    void refuse(std::uint64_t token, const char* error, const char* text, std::int32_t handlerCode = 0) noexcept;

    /// Sends a one-way message, in order with the replies, and returns when it has left this process.
    /// @throws HVBException with -ENOTCONN at once when there is no connection, -ETIMEDOUT at the deadline.
    void post(const Make& make, bus::Deadline deadline);

    /// Sends a call whose reply goes to @p done. @throws HVBException as post does; -ETIMEDOUT for a time of 0 or less.
    void callLater(const Make& make, std::chrono::seconds timeout, Done done);

private:
    struct PendingCall {
        bus::MessagePtr message;
        bool wantsReply = true;
    };
    struct ReplyWait;

    void run();
    void pumpAndSurvive() noexcept;
    void pump();
    void lose(int error) noexcept SENTREL_REQUIRES(m_mutex);
    bus::BusPtr connect(bus::Deadline deadline, int cancelFd);
    void subscribeAndInstall(bus::BusPtr bus, bus::Deadline deadline);
    void takeName(sd_bus& bus, bus::Deadline deadline);
    bool isNameOurs(sd_bus& bus, bus::Deadline deadline) const;
    bool requestName(sd_bus& bus, std::uint32_t flags, bus::Deadline deadline) const;
    void wakeWhenTakenOver() const noexcept;
    void addObjects(sd_bus& bus);

    sd_bus& requireBus() const SENTREL_REQUIRES(m_mutex);
    void sendLocked(sd_bus_message& message) SENTREL_REQUIRES(m_mutex);
    void callLaterLocked(const Make& make, std::chrono::microseconds timeout, Done done) SENTREL_REQUIRES(m_mutex);
    void flushLocked(bus::Deadline deadline) SENTREL_REQUIRES(m_mutex);
    bool hasUnsent() const SENTREL_REQUIRES(m_mutex);

    // Called by sd-bus on the link's thread, with the lock held.
    static int onCall(sd_bus_message* message, void* self, sd_bus_error* error);
    static int onMessage(sd_bus_message* message, void* self, sd_bus_error* error);
    static int onReply(sd_bus_message* message, void* wait, sd_bus_error* error);
    static void onReplySlotGone(void* wait);
    int takeCall(sd_bus_message& message) SENTREL_REQUIRES(m_mutex);
    int takeCommand(sd_bus_message& message, std::int32_t commandId) SENTREL_REQUIRES(m_mutex);
    void takeReading(CommandMessage&& command, const std::string& connection) SENTREL_REQUIRES(m_mutex);
    void askForUser(const std::string& connection) SENTREL_REQUIRES(m_mutex);
    void serveHeld(const std::string& connection, std::optional<uid_t> user) SENTREL_REQUIRES(m_mutex);
    void handOn(CommandMessage&& command, CallbackWorkers::Lane lane, const Sender& sender) noexcept
        SENTREL_REQUIRES(m_mutex);
    int takeHealthCheck(sd_bus_message& message) SENTREL_REQUIRES(m_mutex);
    bool noteLostName(sd_bus_message& message) SENTREL_REQUIRES(m_mutex);
    int takeEvent(sd_bus_message& message) SENTREL_REQUIRES(m_mutex);
    std::uint64_t remember(sd_bus_message& message) SENTREL_REQUIRES(m_mutex);
    void refuseLocked(std::uint64_t token, const char* error, const char* text, std::int32_t handlerCode = 0) noexcept
        SENTREL_REQUIRES(m_mutex);
    void answerError(std::uint64_t token, const char* error, const char* text, std::int32_t handlerCode)
        SENTREL_REQUIRES(m_mutex);

    // constant after construction
    const std::string m_socketPath;
    const LinkReceiver m_receiver;

    // constant once connected
    int m_moduleId = -1;
    std::string m_objectPath;
    std::vector<std::string> m_members;
    std::vector<sd_bus_vtable> m_moduleTable;

    // own locking
    Sentrel::WakeUp m_wake;
    std::atomic<bool> m_ending{false};
    std::atomic<bool> m_begun{false};
    std::atomic<bool> m_isTakenOver{false};
    std::thread m_reader;
    bool m_hadName = false; ///< whoever connects: connectNow, and the reader when that has begun

    /// Held by a sender until it has m_mutex, and passed through by the reader before it takes that: without it the
    /// reader, which has always more to read under a flood, would keep the senders out.
    Sentrel::Mutex m_turn;
    Sentrel::Mutex m_mutex;
    Sentrel::ConditionVariable m_changed; ///< connected, lost, everything sent, or a reply came

    bus::BusPtr m_bus SENTREL_GUARDED_BY(m_mutex);              ///< null: not connected
    std::uint64_t m_generation SENTREL_GUARDED_BY(m_mutex) = 0; ///< counts the connections
    std::set<std::int32_t> m_subscriptions SENTREL_GUARDED_BY(m_mutex);
    std::map<std::uint64_t, PendingCall> m_pending SENTREL_GUARDED_BY(m_mutex); ///< handed on and not yet answered
    SenderDirectory m_senders SENTREL_GUARDED_BY(m_mutex);
};

} // namespace HVB::detail
