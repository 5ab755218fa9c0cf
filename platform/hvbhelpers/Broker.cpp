// The broker's work: sending on connections of its own, receiving on one link.
//
// Calls that wait use a pool of connections, one a caller, so that a command of 45 s blocks nobody else. The link is
// the connection that has the module's name and subscriptions; events of a module that has begun go out on it.
//
// Receiving has two halves. The first runs on the link's thread with its lock held: it only takes the message and
// hands it to the callback threads, or says why not. The second runs on a callback thread, without any lock, and may
// send. Each command gets an answer at once: what a handler refuses, does not answer or throws becomes an error of
// its own, so no sender waits for a time limit that was bound to come. When too much waits already, a command is
// refused as well, and an event or an answer is dropped with a line.
//
// The end goes in this order: nothing new is taken; calls of callbacks are ended, since a callback that waits for
// another module would delay the end by as long; the callback threads, whose last answers still need the link; then the
// link.
#include "platform/hvbhelpers/Broker.h"

#include "base/Takeover.h"
#include "hub/HubIds.h"
#include "platform/hvbhelpers/ErrorText.h"
#include "platform/hvbhelpers/HubProtocol.h"
#include "platform/hvbhelpers/RecordKeeper.h"

#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace HVB::detail {
namespace {

bus::Deadline callDeadline() {
    return std::chrono::steady_clock::now() + bus::kCallTimeout;
}

bus::MessagePtr newEventMessage(sd_bus& bus, const EventMessage& event) {
    sd_bus_message* raw = nullptr;
    bus::check(sd_bus_message_new_signal(&bus, &raw, bus::kEventsPath, bus::kEventsInterface,
                                         bus::eventMember(event.id).c_str()),
               "cannot make an event");
    bus::MessagePtr message(raw);
    fill(*message, event);
    return message;
}

bus::MessagePtr newCommandMessage(sd_bus& bus, const CommandMessage& command) {
    const int target = command.header.m_targetId;
    bus::MessagePtr message = bus::newCall(bus, bus::moduleName(target), bus::modulePath(target), bus::kModuleInterface,
                                           bus::commandMember(command.header.m_commandId));
    fill(*message, command);
    return message;
}

void setResult(CommandResult& result, const BasicCommandData& header, ReplyMessage&& reply) {
    result.m_commandData = header;
    result.m_bSucceeded = reply.succeeded;
    result.m_bValid = reply.valid;
    setInput(result, std::move(reply.payload));
}

} // namespace

Broker::Broker(const std::string& socketPath)
    : m_socketPath(socketPath), m_pool(socketPath), m_link(socketPath, receiver()) {}

// Life.

void Broker::start(boost::logic::tribool waitForHub) {
    const Sentrel::MutexLock lock(m_startMutex);
    const bool wait = static_cast<bool>(waitForHub);
    if (m_ended) {
        throw HVBException(-ECANCELED, "the hub client has ended");
    }
    if (m_link.hasBegun()) {
        if (wait) {
            m_link.awaitConnected(callDeadline());
        }
        return;
    }
    m_link.configure(m_moduleId);
    Sentrel::setTakenOver(false);
    if (wait) {
        m_link.connectNow(callDeadline());
    }
    if (m_moduleId == MODULE_SENTREL) {
        keepRecords(m_socketPath);
    }
    m_workers.begin();
    m_link.begin();
}

void Broker::end() {
    stop();
    // A callback that waits for another module would delay the end by as long.
    m_pool.endCallsOfCallbacks();
    {
        const Sentrel::MutexLock lock(m_startMutex);
        m_ended = true;
    }
    // The callback threads first: their last answers still need the link.
    m_workers.end();
    m_link.end();
}

// Sending.

void Broker::subscribe(std::int32_t eventId) {
    m_link.subscribe(eventId, callDeadline());
}

void Broker::sendEvent(const EventData& event) {
    const EventMessage message{event.m_eventId, ++m_sequence, outgoingPayload(event)};
    const auto make = [&](sd_bus& bus) { return newEventMessage(bus, message); };
    if (m_link.hasBegun()) {
        m_link.post(make, callDeadline());
    } else {
        m_pool.post(make, callDeadline());
    }
}

CommandMessage Broker::outgoing(const CommandData& data) {
    CommandMessage command{data, outgoingPayload(data)};
    m_files.moveOut(command.payload, bus::kMaxPayloadBytes);
    BasicCommandData& header = command.header;
    header.m_sourceId = header.m_sourceId < 0 ? m_moduleId.load() : header.m_sourceId;
    header.m_sequence = ++m_sequence;
    return command;
}

void Broker::sendCommand(const CommandData& data, CommandResult* result, bool wait, int timeoutSeconds) {
    if (timeoutSeconds <= 0) {
        throw HVBException(-EINVAL, "a command needs a time limit above zero");
    }
    const std::chrono::seconds timeout(timeoutSeconds);
    if (wait) {
        sendAndWait(outgoing(data), result, timeout);
    } else {
        sendAndGoOn(outgoing(data), timeout);
    }
}

void Broker::sendAndWait(const CommandMessage& command, CommandResult* result, std::chrono::seconds timeout) {
    ReplyMessage reply;
    const bus::Deadline deadline = std::chrono::steady_clock::now() + timeout;
    m_pool.call([&](sd_bus& bus) { return newCommandMessage(bus, command); },
                [&](sd_bus_message& message) { reply = readReply(message); }, deadline,
                std::min(deadline, callDeadline()));
    if (result != nullptr) {
        setResult(*result, command.header, std::move(reply));
    }
}

void Broker::sendAndGoOn(const CommandMessage& command, std::chrono::seconds timeout) {
    const auto done = [this, header = command.header](sd_bus_message& message) {
        ReplyMessage reply;
        if (sd_bus_message_is_method_error(&message, nullptr) <= 0) {
            reply = readReply(message);
        }
        const std::size_t bytes = reply.payload.bytes();
        const auto job = [this, header, reply = std::move(reply)](bool deliver) mutable {
            runResponse(header, reply, deliver);
        };
        if (!m_workers.post(CallbackWorkers::Lane::Administrators, {}, bytes, job)) {
            traceComm("the answer to a command was dropped: too much waits");
        }
    };
    m_link.callLater([&](sd_bus& bus) { return newCommandMessage(bus, command); }, timeout, done);
}

void Broker::sendResponse(const CommandResult& result) {
    ReplyMessage reply{result.m_bSucceeded, result.m_bValid, outgoingPayload(result)};
    m_files.moveOut(reply.payload, bus::kMaxReplyPayloadBytes);
    m_link.reply(
        result.m_commandData.m_token, [&](sd_bus_message& message) { fill(message, reply); }, callDeadline());
}

void Broker::callHub(const char* member, const DeliveryLink::Fill& fill) {
    const bus::Deadline deadline = callDeadline();
    m_pool.call(
        [&](sd_bus& bus) {
            bus::MessagePtr message = bus::newCall(bus, bus::kHubName, bus::kHubPath, bus::kHubInterface, member);
            fill(*message);
            return message;
        },
        [](sd_bus_message&) {}, deadline, deadline);
}

void Broker::sendLog(const LogRequest& request) {
    if (const std::shared_ptr<RecordKeeper> keeper = currentKeeper()) {
        keeper->hand(request);
        return;
    }
    callHub(bus::kLogMember, [&](sd_bus_message& message) { fill(message, request); });
}

void Broker::sendLogMessage(std::int32_t moduleId, std::wstring_view moduleName, std::int32_t type, std::int32_t level,
                            std::wstring_view line) {
    callHub(bus::kLogMessageMember, [&](sd_bus_message& message) {
        bus::check(sd_bus_message_append(&message, "i", moduleId), "cannot fill a message");
        bus::appendText(message, moduleName);
        bus::check(sd_bus_message_append(&message, "ii", type, level), "cannot fill a message");
        bus::appendText(message, line);
    });
}

// Receiving: the first half on the link's thread, with its lock held.

const char* Broker::whyNotTaken() const {
    return m_ended ? bus::kErrorStopped : bus::kErrorBusy;
}

LinkReceiver Broker::receiver() {
    LinkReceiver receiver;
    receiver.command = [this](CommandMessage&& command, CallbackWorkers::Lane lane,
                              const Sender& sender) -> const char* {
        const std::size_t bytes = command.payload.bytes();
        const bool taken =
            m_workers.post(lane, sender, bytes, [this, command = std::move(command)](bool deliver) mutable {
                runCommand(command, deliver);
            });
        return taken ? nullptr : whyNotTaken();
    };
    receiver.healthCheck = [this](std::uint64_t token) -> const char* {
        const bool taken = m_workers.post(CallbackWorkers::Lane::Health, {}, 0,
                                          [this, token](bool deliver) { runHealthCheck(token, deliver); });
        return taken ? nullptr : whyNotTaken();
    };
    receiver.event = [this](EventMessage&& event) {
        const std::size_t bytes = event.payload.bytes();
        const bool taken =
            m_workers.post(CallbackWorkers::Lane::Event, {}, bytes,
                           [this, event = std::move(event)](bool deliver) mutable { runEvent(event, deliver); });
        if (!taken) {
            traceComm("an event was dropped: too much waits");
        }
    };
    receiver.takenOver = [this] {
        Sentrel::setTakenOver(true);
        giveRecordsUp();
        syslog(LOG_WARNING, "hub client: another process of module %d has taken over; this one takes nothing any more",
               m_moduleId.load());
    };
    return receiver;
}

// The second half, on a callback thread.

void Broker::runCommand(CommandMessage& command, bool deliver) noexcept {
    const std::uint64_t token = command.header.m_token;
    if (!deliver) {
        m_link.refuse(token, bus::kErrorStopped, "the module takes nothing any more");
        return;
    }
    try {
        const ReceiverSlot<CommandInterface>::Use use(m_commandInterface);
        CommandInterface* const receiver = use.get();
        CommandData data(command.header.m_commandId, command.header.m_targetId, command.header.m_bFlag);
        static_cast<BasicCommandData&>(data) = command.header;
        if (receiver != nullptr) {
            setInput(data, std::move(command.payload));
        }
        const bool known = receiver != nullptr && receiver->handleCommand(data);
        m_link.refuse(token, known ? bus::kErrorNoReply : bus::kErrorUnknownCommand,
                      known ? "the module did not answer" : "the module does not know this command");
    } catch (...) {
        m_link.refuse(token, bus::kErrorFailed, currentExceptionText().c_str(), currentExceptionCode());
    }
}

void Broker::runHealthCheck(std::uint64_t token, bool deliver) noexcept {
    const ReceiverSlot<HealthCheckInterface>::Use use(m_healthCheckInterface);
    HealthCheckInterface* const receiver = use.get();
    if (!deliver || receiver == nullptr) {
        m_link.refuse(token, deliver ? bus::kErrorUnknownCommand : bus::kErrorStopped,
                      deliver ? "the module has no health check" : "the module takes nothing any more");
        return;
    }
    try {
        const int well = receiver->handleHealthCheck() ? 1 : 0;
        m_link.reply(
            token,
            [well](sd_bus_message& message) {
                bus::check(sd_bus_message_append(&message, "b", well), "cannot fill a message");
            },
            callDeadline());
    } catch (...) {
        m_link.refuse(token, bus::kErrorFailed, currentExceptionText().c_str());
    }
}

void Broker::runEvent(EventMessage& event, bool deliver) noexcept {
    const ReceiverSlot<EventInterface>::Use use(m_eventInterface);
    EventInterface* const receiver = use.get();
    if (!deliver || receiver == nullptr) {
        return;
    }
    try {
        EventData data(event.id);
        data.m_sequence = event.sequence;
        setInput(data, std::move(event.payload));
        (void)receiver->handleEventNotification(data); // its publisher never learns of it
    } catch (...) {
        traceComm("an event failed: ", currentExceptionText());
    }
}

void Broker::runResponse(const BasicCommandData& header, ReplyMessage& reply, bool deliver) noexcept {
    const ReceiverSlot<CommandInterface>::Use use(m_commandInterface);
    CommandInterface* const receiver = use.get();
    if (!deliver || receiver == nullptr) {
        return;
    }
    try {
        CommandResult result;
        setResult(result, header, std::move(reply));
        receiver->handleCommandResponse(result);
    } catch (...) {
        traceComm("the answer to a command failed: ", currentExceptionText());
    }
}

} // namespace HVB::detail
