// The module's one way to the hub. The class is declared here as the daemon needs it; a library of the platform
// supplies it (platform/hvbhelpers), and unit tests link a recording double in its place.
#pragma once

#include "hub/Exceptions.h"
#include "hub/HVBInterfaces.h"
#include "hub/HVBMessages.h"

#include <boost/logic/tribool.hpp>
#include <string>

namespace HVB {

/// Client of the local module hub.
///
/// Every operation may throw HVB::HVBException and does so promptly: at once when there is no hub, and within two
/// seconds when there is one that does not answer (sendCommand has its own limit).
///
/// Threads: thread-safe. Callbacks run on threads of the broker, several at a time, with all signals blocked.
/// Owner: the library. The pointer from getInstance stays usable for the life of the process, also across
/// releaseInstance and on other threads that are in the middle of a send.
class HVBCommBroker {
public:
    /// Gives the process-wide broker for the hub at @p socketPath, creating it on the first call. Does not connect.
    /// While there is a broker, another path changes nothing.
    static HVBCommBroker* getInstance(std::string socketPath);

    /// Ends the broker: no callback runs any more when this returns, and the module's name is given back.
    /// Callbacks that run are waited for; the calls that they wait in are ended. The next getInstance or operation
    /// makes a new broker without receivers. Requires that no callback is the caller.
    static void releaseInstance();

    /// Says which module this process is. Requires a call before start for a process that is to receive commands;
    /// events reach also one that is no module.
    void setHVId(int moduleId);

    /// The receivers are not owned and must outlive delivery, which ends with releaseInstance. Without a receiver
    /// commands and health checks are answered as unknown, and events are dropped. Null takes a receiver away before
    /// that: a callback that runs in it is waited for, and the calls that callbacks wait in are ended, now and later.
    /// Requires then that no callback is the caller.
    void setCommandInterface(CommandInterface* receiver);
    void setHealthCheckInterface(HealthCheckInterface* receiver);
    void setEventInterface(EventInterface* receiver);

    /// Connects, takes the module's name and begins delivering to the receivers that were set. From then on the
    /// broker reconnects by itself, with its name and its subscriptions, whenever the hub comes back.
    /// @param waitForHub true: return when connected, and throw when the hub cannot be reached. Otherwise connect in
    ///        the background. A second start changes nothing but may wait.
    void start(boost::logic::tribool waitForHub);

    /// Stops delivery: no further callback begins. Callbacks that run are not waited for. Commands are answered with an
    /// error from then on. This holds for the life of this broker: one that was stopped before start connects and
    /// subscribes without an error, and delivers nothing. Sending goes on. May be called in a signal handler on a
    /// thread that is not inside a broker operation.
    void stop();

    /// Subscribes to the id in @p event, which is only the carrier of the id. A second subscription to an id is the
    /// first one. While there is no connection it is only noted down, and made with the connection.
    void subscribeForEvent(EventData& event);

    /// Publishes @p event to every module and client that subscribed to it.
    void sendEventNotification(EventData& event);

    /// Sends a command to the module @p data names.
    /// @param result filled with the reply; its input archive is set when the reply has a payload. May be null.
    /// @param wait true: wait for the reply. False: the reply goes to CommandInterface::handleCommandResponse.
    ///        Requires a start; a refused command gives a result whose flags are both false.
    /// @param timeoutSeconds how long to wait for the reply; above zero.
    /// @throws HVBException when no reply came, the command was refused or the receiver did not know it.
    void sendCommand(CommandData& data, CommandResult* result, bool wait, int timeoutSeconds);

    /// Sends the reply to a delivered command; the header copied into m_commandData tells which.
    /// @throws HVBException when no such command waits for a reply.
    void sendCommandResponse(CommandResult& result);

    /// Hands a log record to the hub and returns when the hub has stored it. Of module 7, once it has started: returns
    /// also when the hub is away and the record is synced in the spool, from where it is delivered in order and stored
    /// once; throws then when the spool has no room, or when the hub will never store the record. Of others: a record
    /// that may have arrived is not sent again.
    void sendLog(LogRequest& request);

private:
    HVBCommBroker() = default;
};

} // namespace HVB
