// Between the carriers of hub/ and the messages of the bus.
#pragma once

#include "base/Mutex.h"
#include "hub/HVBMessages.h"
#include "platform/hvbhelpers/MemoryFile.h"

#include <systemd/sd-bus.h>

#include <cstdint>
#include <string>

namespace HVB::detail {

/// What a carrier takes along: its archive's text, in the message or in a file beside it, or nothing.
struct Payload {
    bool present = false;
    std::wstring text = {};
    MemoryFile::Ptr file = nullptr; ///< holds the text when there is one

    /// Bytes that it takes in this process while it waits.
    std::size_t bytes() const { return text.size() * sizeof(wchar_t); }
    /// The text, wherever it is. @throws HVBException with -EBADMSG when the file cannot be read.
    std::wstring takeText() { return file != nullptr ? file->text() : std::move(text); }
};

/// What the writer put into @p carrier. A carrier to which nothing was written has no payload.
Payload outgoingPayload(const SerializedData& carrier);

/// The files of the large payloads that leave. Clients that get the same text share one file: what a client leaves
/// unread costs no memory then. Threads: thread-safe. Owner: the broker.
class PayloadFiles {
public:
    /// Moves the text of a payload that no message holds into a file. @throws HVBException as MemoryFile::of does.
    void moveOut(Payload& payload, std::size_t maxBytes);

private:
    MemoryFile::Ptr last();

    Sentrel::Mutex m_mutex;
    MemoryFile::Ptr m_last SENTREL_GUARDED_BY(m_mutex);
};

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
/// @param maxBytes of its payload's file; 0: it has none.
CommandMessage readCommand(sd_bus_message& message, std::int32_t commandId, std::size_t maxBytes);
ReplyMessage readReply(sd_bus_message& message);
EventMessage readEvent(sd_bus_message& message, std::int32_t eventId);

} // namespace HVB::detail
