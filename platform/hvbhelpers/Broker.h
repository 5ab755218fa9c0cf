// The broker behind HVBCommBroker: one life of it, from getInstance to releaseInstance.
#pragma once

#include "base/Mutex.h"
#include "hub/HVBInterfaces.h"
#include "hub/HVBMessages.h"
#include "platform/hvbhelpers/CallbackWorkers.h"
#include "platform/hvbhelpers/ConnectionPool.h"
#include "platform/hvbhelpers/DeliveryLink.h"
#include "platform/hvbhelpers/ReceiverSlot.h"

#include <boost/logic/tribool.hpp>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace HVB::detail {

class RecordKeeper;

/// The broker's operations, as HVBCommBroker describes them.
/// Threads: thread-safe, except that end requires that no callback is its caller.
/// Owner: the process-wide state below, and each operation that is running.
class Broker {
public:
    explicit Broker(const std::string& socketPath);
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;

    void setModuleId(int moduleId) { m_moduleId = moduleId; }
    void setCommandInterface(CommandInterface* receiver) { setReceiver(m_commandInterface, receiver); }
    void setHealthCheckInterface(HealthCheckInterface* receiver) { setReceiver(m_healthCheckInterface, receiver); }
    void setEventInterface(EventInterface* receiver) { setReceiver(m_eventInterface, receiver); }

    void start(boost::logic::tribool waitForHub);
    void stop() { m_workers.stop(); }
    /// Stops, joins every thread, and gives the name back. For good.
    void end();

    void subscribe(std::int32_t eventId);
    void sendEvent(const EventData& event);
    void sendCommand(const CommandData& data, CommandResult* result, bool wait, int timeoutSeconds);
    void sendResponse(const CommandResult& result);
    void sendLog(const LogRequest& request);
    void sendLogMessage(std::int32_t moduleId, std::wstring_view moduleName, std::int32_t type, std::int32_t level,
                        std::wstring_view line);

private:
    template <class Interface>
    void setReceiver(ReceiverSlot<Interface>& slot, Interface* receiver) {
        if (receiver == nullptr) {
            // A callback that waits for another module would keep its receiver for as long.
            m_pool.endCallsOfCallbacks();
        }
        slot.set(receiver);
    }

    LinkReceiver receiver();
    const char* whyNotTaken() const;
    CommandMessage outgoing(const CommandData& data);
    void sendAndWait(const CommandMessage& command, CommandResult* result, std::chrono::seconds timeout);
    void sendAndGoOn(const CommandMessage& command, std::chrono::seconds timeout);
    void callHub(const char* member, const DeliveryLink::Fill& fill);

    // On a callback thread, none of them throws.
    void runCommand(CommandMessage& command, bool deliver) noexcept;
    void runHealthCheck(std::uint64_t token, bool deliver) noexcept;
    void runEvent(EventMessage& event, bool deliver) noexcept;
    void runResponse(const BasicCommandData& header, ReplyMessage& reply, bool deliver) noexcept;

    const std::string m_socketPath; // constant after construction

    // own locking
    std::atomic<int> m_moduleId{-1};
    ReceiverSlot<CommandInterface> m_commandInterface;
    ReceiverSlot<HealthCheckInterface> m_healthCheckInterface;
    ReceiverSlot<EventInterface> m_eventInterface;
    std::atomic<std::int32_t> m_sequence{0};
    std::atomic<bool> m_ended{false};
    CallbackWorkers m_workers;
    PayloadFiles m_files;
    ConnectionPool m_pool;
    DeliveryLink m_link;

    Sentrel::Mutex m_startMutex; ///< one start or end at a time
};

/// Makes the process's broker for @p socketPath, unless there is one.
void makeBroker(std::string socketPath);

/// The process's broker; one that was released is made anew, for the same path.
/// @throws HVBException when there was none yet.
std::shared_ptr<Broker> currentBroker();

/// Has what this process logs kept while the hub is away, from now on. Only of the machine's own hub, whose spool there
/// is one of. When the spool cannot be had, the system log says so, and records go to the hub or are lost.
void keepRecords(const std::string& socketPath);

/// Ends that, because another process of the module is to have the spool. What is logged afterwards goes to the hub, or
/// is lost.
void giveRecordsUp() noexcept;

/// Where log records go. @return nothing when they are not kept.
std::shared_ptr<RecordKeeper> currentKeeper();

/// Ends the process's broker, if there is one. Operations that run on other threads keep theirs until they are done.
void releaseBroker();

} // namespace HVB::detail
