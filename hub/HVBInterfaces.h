// The callbacks through which the hub reaches a module.
#pragma once

namespace HVB {

class CommandData;
class CommandResult;
class EventData;

/// Common base of the three callback interfaces.
/// Threads: as the derived interface says. Owner: the module; the broker never owns a receiver.
class HVBInterface {};

/// Receives the commands that other modules and clients send to this module.
/// Threads: broker threads, several at a time. Owner: the module; it must outlive the broker's delivery.
class CommandInterface : public HVBInterface {
public:
    virtual ~CommandInterface() = default;

    /// Handles one command. The reply is sent with HVBCommBroker::sendCommandResponse before this returns.
    /// @return false when the command is not known: the sender gets an error at once. An exception, or true
    ///         without a reply, gives the sender an error of its own.
    virtual bool handleCommand(CommandData& data) = 0;

    /// Receives the answer to a command that was sent without waiting for it.
    virtual void handleCommandResponse(CommandResult& result) = 0;
};

/// Answers the hub's question whether the module is well.
/// Threads: broker threads. Owner: the module; it must outlive the broker's delivery.
class HealthCheckInterface : public HVBInterface {
public:
    virtual ~HealthCheckInterface() = default;

    virtual bool handleHealthCheck() = 0;
};

/// Receives the events that the module subscribed to.
/// Threads: broker threads, one event at a time, in the order in which they came. Owner: the module; it must outlive
/// the broker's delivery.
class EventInterface : public HVBInterface {
public:
    virtual ~EventInterface() = default;

    /// @return whether the event was handled. The publisher never learns of it.
    virtual bool handleEventNotification(EventData& event) = 0;
};

} // namespace HVB
