// What sd-bus calls when a message for the module arrives. All of it runs on the link's thread with its lock held, so
// it only looks at the message, keeps what is needed of it, and hands the rest on.
//
// A command that changes something comes only from those whom the bus lets send it: it goes to the lane of changes or
// the administrators' at once. One that only reads may come from anybody. It goes to its user's share of the users'
// lane, so the bus is asked for the user behind a connection that has not called before, without waiting; its calls are
// held until the answer comes (SenderDirectory). A read whose reply nobody wants is not worked out at all: it would be
// the cheapest flood there is.
#include "platform/hvbhelpers/DeliveryLink.h"
#include "platform/hvbhelpers/ErrorText.h"
#include "platform/hvbhelpers/HubLimits.h"
#include "platform/hvbhelpers/HubProtocol.h"

#include "hub/HubIds.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

namespace HVB::detail {
namespace {

/// Tokens are never reused in a process, also not by the broker that follows one that was released.
std::atomic<std::uint64_t> nextToken{1};

constexpr const char* kTakesNoCommand = "the module takes no command now";

constexpr uid_t kRoot = 0;
/// No user has this id: chown(2) takes it for "as it is".
constexpr auto kNobodyKnown = static_cast<uid_t>(-1);

/// What is known of a command; null for one that is not, which is the services' and root's.
const Sentrel::CommandInfo* infoOf(std::int32_t commandId) {
    const auto* const found =
        std::find_if(Sentrel::kCommands.begin(), Sentrel::kCommands.end(),
                     [commandId](const Sentrel::CommandInfo& command) { return command.id == commandId; });
    return found != Sentrel::kCommands.end() ? found : nullptr;
}

/// Whether everybody may send the command, because it changes nothing.
bool onlyReads(std::int32_t commandId) {
    const Sentrel::CommandInfo* const info = infoOf(commandId);
    return info != nullptr && info->access == Sentrel::CommandAccess::Everyone;
}

/// The lane of a command that does more than read.
CallbackWorkers::Lane laneOfChange(std::int32_t commandId) {
    const Sentrel::CommandInfo* const info = infoOf(commandId);
    return info != nullptr && info->isInTurn ? CallbackWorkers::Lane::Changes : CallbackWorkers::Lane::Administrators;
}

CallbackWorkers::Lane laneOf(uid_t user) {
    return user == kRoot ? CallbackWorkers::Lane::Administrators : CallbackWorkers::Lane::Users;
}

/// The events that module 7 publishes, for introspection.
const sd_bus_vtable kEventsTable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_SIGNAL_WITH_NAMES("Event1002", bus::kEventSignature,
                             SD_BUS_PARAM(sequence) SD_BUS_PARAM(has_payload) SD_BUS_PARAM(payload), 0),
    SD_BUS_SIGNAL_WITH_NAMES("Event1003", bus::kEventSignature,
                             SD_BUS_PARAM(sequence) SD_BUS_PARAM(has_payload) SD_BUS_PARAM(payload), 0),
    SD_BUS_VTABLE_END,
};

} // namespace

void DeliveryLink::configure(int moduleId) {
    m_moduleId = moduleId;
    m_objectPath = bus::modulePath(moduleId);
    m_members.clear();
    m_members.reserve(Sentrel::kCommands.size());
    m_moduleTable = {SD_BUS_VTABLE_START(0),
                     SD_BUS_METHOD_WITH_NAMES(bus::kHealthCheckMember, "", "", "b", SD_BUS_PARAM(well),
                                              &DeliveryLink::onCall, SD_BUS_VTABLE_UNPRIVILEGED)};
    for (const Sentrel::CommandInfo& command : Sentrel::kCommands) {
        if (command.receiver == moduleId) {
            m_members.push_back(bus::commandMember(command.id));
            m_moduleTable.push_back(SD_BUS_METHOD_WITH_NAMES(
                m_members.back().c_str(), bus::kCommandSignature,
                SD_BUS_PARAM(token) SD_BUS_PARAM(source) SD_BUS_PARAM(target) SD_BUS_PARAM(flag) SD_BUS_PARAM(sequence)
                    SD_BUS_PARAM(has_payload) SD_BUS_PARAM(payload),
                bus::kCommandReplySignature,
                SD_BUS_PARAM(succeeded) SD_BUS_PARAM(valid) SD_BUS_PARAM(has_payload) SD_BUS_PARAM(payload),
                &DeliveryLink::onCall, SD_BUS_VTABLE_UNPRIVILEGED));
        }
    }
    m_moduleTable.push_back(SD_BUS_VTABLE_END);
}

/// The table is only for introspection. The calls themselves go to onCall, which takes any command's number.
void DeliveryLink::addObjects(sd_bus& bus) {
    bus::check(sd_bus_add_filter(&bus, nullptr, &DeliveryLink::onMessage, this), "cannot receive events");
    if (m_moduleId < 0) {
        return;
    }
    const char* path = m_objectPath.c_str();
    bus::check(sd_bus_add_object(&bus, nullptr, path, &DeliveryLink::onCall, this), "cannot receive commands");
    bus::check(sd_bus_add_object_vtable(&bus, nullptr, path, bus::kModuleInterface, m_moduleTable.data(), this),
               "cannot show the commands");
    bus::check(sd_bus_add_object_vtable(&bus, nullptr, bus::kEventsPath, bus::kEventsInterface, kEventsTable, this),
               "cannot show the events");
}

int DeliveryLink::onCall(sd_bus_message* message, void* self, sd_bus_error*) {
    try {
        DeliveryLink& link = *static_cast<DeliveryLink*>(self);
        link.m_mutex.assertHeld();
        return link.takeCall(*message);
    } catch (...) {
        traceComm(currentExceptionText());
        return -EIO;
    }
}

int DeliveryLink::onMessage(sd_bus_message* message, void* self, sd_bus_error*) {
    try {
        DeliveryLink& link = *static_cast<DeliveryLink*>(self);
        link.m_mutex.assertHeld();
        return link.takeEvent(*message);
    } catch (...) {
        traceComm("an event was dropped: ", currentExceptionText());
        return 1;
    }
}

int DeliveryLink::takeCall(sd_bus_message& message) {
    const char* interface = sd_bus_message_get_interface(&message);
    const char* member = sd_bus_message_get_member(&message);
    if (member == nullptr || (interface != nullptr && std::strcmp(interface, bus::kModuleInterface) != 0)) {
        return 0;
    }
    if (std::strcmp(member, bus::kHealthCheckMember) == 0) {
        return takeHealthCheck(message);
    }
    const std::optional<int> commandId = bus::memberId(member, "Command");
    return commandId ? takeCommand(message, *commandId) : 0;
}

int DeliveryLink::takeCommand(sd_bus_message& message, std::int32_t commandId) {
    const bool reads = onlyReads(commandId);
    if (reads && sd_bus_message_get_expect_reply(&message) <= 0) {
        return 1; // nobody would hear the answer, and so it is not worked out
    }
    const std::uint64_t token = remember(message);
    CommandMessage command;
    try {
        command = readCommand(message, commandId, reads ? 0 : bus::kMaxPayloadBytes);
    } catch (const HVBException& exception) {
        refuseLocked(token, bus::kErrorBadMessage, exception.message().c_str());
        return 1;
    } catch (...) {
        m_pending.erase(token); // sd-bus answers
        throw;
    }
    command.header.m_token = token;
    const char* sender = sd_bus_message_get_sender(&message);
    const std::string connection = sender != nullptr ? sender : "";
    if (reads) {
        takeReading(std::move(command), connection);
    } else {
        // The bus lets only administrators and services send it.
        handOn(std::move(command), laneOfChange(commandId), {kRoot, connection});
    }
    return 1;
}

/// Anybody may send these, so each user has a share.
void DeliveryLink::takeReading(CommandMessage&& command, const std::string& connection) {
    if (const std::optional<uid_t> user = m_senders.userOf(connection)) {
        handOn(std::move(command), laneOf(*user), {*user, connection});
        return;
    }
    const std::uint64_t token = command.header.m_token;
    switch (m_senders.hold(connection, command)) {
    case SenderDirectory::Held::First:
        askForUser(connection);
        break;
    case SenderDirectory::Held::Later:
        break;
    case SenderDirectory::Held::No:
        refuseLocked(token, bus::kErrorBusy, kTakesNoCommand);
        break;
    }
}

void DeliveryLink::askForUser(const std::string& connection) {
    const auto make = [&connection](sd_bus& bus) {
        bus::MessagePtr request =
            bus::newCall(bus, bus::kDriver, bus::kDriverPath, bus::kDriver, bus::kGetConnectionUnixUserMember);
        bus::check(sd_bus_message_append(request.get(), "s", connection.c_str()), "cannot fill a message");
        return request;
    };
    const auto done = [this, connection](sd_bus_message& reply) {
        m_mutex.assertHeld();
        std::uint32_t user = 0;
        const bool isTold =
            sd_bus_message_is_method_error(&reply, nullptr) <= 0 && sd_bus_message_read(&reply, "u", &user) > 0;
        serveHeld(connection, isTold ? std::optional<uid_t>(user) : std::nullopt);
    };
    try {
        callLaterLocked(make, bus::kCallTimeout, done);
    } catch (...) {
        traceComm(currentExceptionText());
        serveHeld(connection, std::nullopt);
    }
}

void DeliveryLink::serveHeld(const std::string& connection, std::optional<uid_t> user) {
    // Those of whom the bus tells nothing count as one user.
    const uid_t served = user.value_or(kNobodyKnown);
    for (CommandMessage& command : m_senders.learn(connection, user)) {
        handOn(std::move(command), laneOf(served), {served, connection});
    }
}

/// A call that there is no memory for is answered all the same.
void DeliveryLink::handOn(CommandMessage&& command, CallbackWorkers::Lane lane, const Sender& sender) noexcept {
    const std::uint64_t token = command.header.m_token;
    const char* error = bus::kErrorBusy;
    try {
        error = m_receiver.command(std::move(command), lane, sender);
    } catch (...) {
        traceComm(currentExceptionText());
    }
    if (error != nullptr) {
        refuseLocked(token, error, kTakesNoCommand);
    }
}

int DeliveryLink::takeHealthCheck(sd_bus_message& message) {
    const std::uint64_t token = remember(message);
    if (sd_bus_message_is_empty(&message) <= 0) {
        refuseLocked(token, bus::kErrorBadMessage, "a health check has no arguments");
        return 1;
    }
    const char* error = bus::kErrorBusy;
    try {
        error = m_receiver.healthCheck(token);
    } catch (...) {
        traceComm(currentExceptionText());
    }
    if (error != nullptr) {
        refuseLocked(token, error, "the module takes no health check now");
    }
    return 1;
}

/// Who has the module's name the bus alone says.
bool DeliveryLink::noteLostName(sd_bus_message& message) {
    const char* const sender = sd_bus_message_get_sender(&message);
    const char* name = nullptr;
    if (sd_bus_message_is_signal(&message, bus::kDriver, "NameLost") <= 0 || sender == nullptr ||
        std::strcmp(sender, bus::kDriver) != 0 || sd_bus_message_read(&message, "s", &name) <= 0 ||
        name != bus::moduleName(m_moduleId)) {
        return false;
    }
    m_isTakenOver = true;
    return true;
}

int DeliveryLink::takeEvent(sd_bus_message& message) {
    if (noteLostName(message)) {
        return 1;
    }
    if (sd_bus_message_is_signal(&message, bus::kEventsInterface, nullptr) <= 0) {
        return 0;
    }
    const char* member = sd_bus_message_get_member(&message);
    const std::optional<int> eventId = bus::memberId(member != nullptr ? member : "", "Event");
    // One that was not asked for was sent to us alone; who may send at all is the bus's affair.
    if (eventId && !m_isTakenOver && m_subscriptions.contains(*eventId)) {
        m_receiver.event(readEvent(message, *eventId));
    }
    return 1;
}

std::uint64_t DeliveryLink::remember(sd_bus_message& message) {
    const std::uint64_t token = nextToken.fetch_add(1);
    PendingCall call{bus::MessagePtr(sd_bus_message_ref(&message)), sd_bus_message_get_expect_reply(&message) > 0};
    m_pending.emplace(token, std::move(call));
    return token;
}

} // namespace HVB::detail
