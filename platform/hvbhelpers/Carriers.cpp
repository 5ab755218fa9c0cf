#include "platform/hvbhelpers/Carriers.h"

#include "platform/hvbhelpers/BusConnection.h"
#include "platform/hvbhelpers/HubProtocol.h"

#include <cerrno>
#include <utility>

namespace HVB::detail {
namespace {

/// @param large the other signature that it may have, if any. @return whether it has that one.
bool requireSignature(sd_bus_message& message, const char* signature, const char* large = nullptr) {
    if (sd_bus_message_has_signature(&message, signature) > 0) {
        return false;
    }
    if (large != nullptr && sd_bus_message_has_signature(&message, large) > 0) {
        return true;
    }
    throw HVBException(-EBADMSG, std::string("a message must have the signature ") + signature);
}

void appendPayload(sd_bus_message& message, const Payload& payload) {
    bus::check(sd_bus_message_append(&message, "b", static_cast<int>(payload.present)), "cannot fill a message");
    if (payload.file != nullptr) {
        bus::check(sd_bus_message_append(&message, "hy", payload.file->fd(), payload.file->width()),
                   "cannot fill a message");
    } else {
        bus::appendText(message, payload.text);
    }
}

/// @param maxBytes of its file, when it has one.
Payload readPayload(sd_bus_message& message, bool hasFile, std::size_t maxBytes) {
    int present = 0;
    bus::check(sd_bus_message_read(&message, "b", &present), "cannot read a message");
    if (!hasFile) {
        return {present != 0, bus::readText(message)};
    }
    int fd = -1;
    std::uint8_t width = 0;
    bus::check(sd_bus_message_read(&message, "hy", &fd, &width), "cannot read a message");
    return {present != 0, {}, MemoryFile::arrived(fd, width, maxBytes)};
}

} // namespace

Payload outgoingPayload(const SerializedData& carrier) {
    if (!carrier.m_bHasPayload || carrier.m_pOutStream == nullptr) {
        return {};
    }
    return {true, carrier.m_pOutStream->str()};
}

void PayloadFiles::moveOut(Payload& payload, std::size_t maxBytes) {
    if (payload.bytes() <= bus::kMaxTextBytes) {
        return;
    }
    MemoryFile::Ptr file = last();
    if (file == nullptr || !file->holds(payload.text)) {
        file = MemoryFile::of(payload.text, maxBytes);
        const Sentrel::MutexLock lock(m_mutex);
        m_last = file;
    }
    payload.file = std::move(file);
    payload.text = {};
}

MemoryFile::Ptr PayloadFiles::last() {
    const Sentrel::MutexLock lock(m_mutex);
    return m_last;
}

void setInput(SerializedData& carrier, Payload&& payload) {
    delete std::exchange(carrier.m_pInArchive, nullptr);
    delete std::exchange(carrier.m_pInStream, nullptr);
    if (payload.present) {
        std::unique_ptr<std::wstringstream> stream = makeInStream(payload.takeText());
        carrier.m_pInArchive = makeDeliveredArchive(*stream).release();
        carrier.m_pInStream = stream.release();
    }
}

void fill(sd_bus_message& message, const CommandMessage& command) {
    const BasicCommandData& header = command.header;
    bus::check(sd_bus_message_append(&message, "tiibi", header.m_token, header.m_sourceId, header.m_targetId,
                                     static_cast<int>(header.m_bFlag), header.m_sequence),
               "cannot fill a message");
    appendPayload(message, command.payload);
}

void fill(sd_bus_message& message, const ReplyMessage& reply) {
    bus::check(sd_bus_message_append(&message, "bb", static_cast<int>(reply.succeeded), static_cast<int>(reply.valid)),
               "cannot fill a message");
    appendPayload(message, reply.payload);
}

void fill(sd_bus_message& message, const EventMessage& event) {
    bus::check(sd_bus_message_append(&message, "i", event.sequence), "cannot fill a message");
    appendPayload(message, event.payload);
}

void fill(sd_bus_message& message, const LogRequest& request) {
    bus::check(sd_bus_message_append(&message, "ii", request.m_sourceId, request.m_logType), "cannot fill a message");
    bus::appendText(message, request.m_text);
    bus::appendText(message, request.m_detailText);
    bus::check(sd_bus_message_append(&message, "i", request.m_count), "cannot fill a message");
}

CommandMessage readCommand(sd_bus_message& message, std::int32_t commandId, std::size_t maxBytes) {
    const bool isLarge =
        requireSignature(message, bus::kCommandSignature, maxBytes > 0 ? bus::kLargeCommandSignature : nullptr);
    CommandMessage command;
    command.header.m_commandId = commandId;
    int flag = 0;
    bus::check(sd_bus_message_read(&message, "tiibi", &command.header.m_token, &command.header.m_sourceId,
                                   &command.header.m_targetId, &flag, &command.header.m_sequence),
               "cannot read a command");
    command.header.m_bFlag = flag != 0;
    command.payload = readPayload(message, isLarge, maxBytes);
    return command;
}

ReplyMessage readReply(sd_bus_message& message) {
    const bool isLarge = requireSignature(message, bus::kCommandReplySignature, bus::kLargeCommandReplySignature);
    int succeeded = 0;
    int valid = 0;
    bus::check(sd_bus_message_read(&message, "bb", &succeeded, &valid), "cannot read a reply");
    return {succeeded != 0, valid != 0, readPayload(message, isLarge, bus::kMaxReplyPayloadBytes)};
}

EventMessage readEvent(sd_bus_message& message, std::int32_t eventId) {
    requireSignature(message, bus::kEventSignature);
    EventMessage event;
    event.id = eventId;
    bus::check(sd_bus_message_read(&message, "i", &event.sequence), "cannot read an event");
    event.payload = readPayload(message, false, 0);
    return event;
}

} // namespace HVB::detail
