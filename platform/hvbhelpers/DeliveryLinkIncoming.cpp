// What sd-bus calls when a message for the module arrives. All of it runs on the link's thread with its lock held.
#include "platform/hvbhelpers/DeliveryLink.h"
#include "platform/hvbhelpers/ErrorText.h"
#include "platform/hvbhelpers/HubProtocol.h"

#include "hub/HubIds.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

namespace HVB::detail {
namespace {

/// Tokens are never reused in a process, also not by the broker that follows one that was released.
std::atomic<std::uint64_t> nextToken{1};

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
        traceComm("an event was dropped: " + currentExceptionText());
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
    const std::uint64_t token = remember(message);
    CommandMessage command;
    try {
        command = readCommand(message, commandId);
    } catch (const HVBException& exception) {
        answerError(token, bus::kErrorBadMessage, exception.message());
        return 1;
    }
    command.header.m_token = token;
    if (const char* error = m_receiver.command(std::move(command))) {
        answerError(token, error, "the module takes no command now");
    }
    return 1;
}

int DeliveryLink::takeHealthCheck(sd_bus_message& message) {
    const std::uint64_t token = remember(message);
    if (sd_bus_message_is_empty(&message) <= 0) {
        answerError(token, bus::kErrorBadMessage, "a health check has no arguments");
    } else if (const char* error = m_receiver.healthCheck(token)) {
        answerError(token, error, "the module takes no health check now");
    }
    return 1;
}

int DeliveryLink::takeEvent(sd_bus_message& message) {
    if (sd_bus_message_is_signal(&message, bus::kEventsInterface, nullptr) <= 0) {
        return 0;
    }
    const char* member = sd_bus_message_get_member(&message);
    const std::optional<int> eventId = bus::memberId(member != nullptr ? member : "", "Event");
    // One that was not asked for was sent to us alone; who may send at all is the bus's affair.
    if (eventId && m_subscriptions.contains(*eventId)) {
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
