// Between the carriers of hub/ and the messages of the bus.
#pragma once

#include "hub/HVBMessages.h"

#include <systemd/sd-bus.h>

#include <cstdint>
#include <string>

namespace HVB::detail {

/// What a carrier takes along: its archive's text, or nothing.
struct Payload {
    bool present = false;
    std::wstring text;

    std::size_t bytes() const { return text.size() * sizeof(wchar_t); }
};

/// What the writer put into @p carrier. A carrier to which nothing was written has no payload.
Payload outgoingPayload(const SerializedData& carrier);

/// Makes @p payload the input of @p carrier, in place of what it had. Without a payload it gets none. What the carrier
/// sends stays what its own writer wrote. A text that is no archive throws when somebody reads it.
void setInput(SerializedData& carrier, Payload&& payload);

struct CommandMessage {
    BasicCommandData header;
    Payload payload;
};
struct ReplyMessage {
    bool succeeded = false;
    bool valid = false;
    Payload payload;
};
struct EventMessage {
    std::int32_t id = -1;
    std::int32_t sequence = -1;
    Payload payload;
};

// Each fills a new message. @throws HVBException with -EMSGSIZE when the payload is too large.
void fill(sd_bus_message& message, const CommandMessage& command);
void fill(sd_bus_message& message, const ReplyMessage& reply);
void fill(sd_bus_message& message, const EventMessage& event);
void fill(sd_bus_message& message, const LogRequest& request);

// Each reads a message that arrived. @throws HVBException with -EBADMSG when it has another signature or a text that
// is no wide text.
CommandMessage readCommand(sd_bus_message& message, std::int32_t commandId);
ReplyMessage readReply(sd_bus_message& message);
EventMessage readEvent(sd_bus_message& message, std::int32_t eventId);

} // namespace HVB::detail
