// The messages of the hub: commands, results, events and log records, each a header with a payload.
#pragma once

#include "hub/HubIds.h"
#include "hub/SerializedData.h"

#include <cstdint>
#include <string>

namespace HVB {

/// Routing header of a command. A module reads only m_commandId and copies the rest into its reply unchanged.
class BasicCommandData {
public:
    BasicCommandData() = default;
    BasicCommandData(std::int32_t commandId, std::int32_t targetId, bool flag)
        : m_commandId(commandId), m_targetId(targetId), m_bFlag(flag) {}
    BasicCommandData(const BasicCommandData&) = default;
    BasicCommandData& operator=(const BasicCommandData&) = default;
    virtual ~BasicCommandData() = default;

    std::int32_t m_commandId = -1;
    std::uint64_t m_token = 0;
    std::int32_t m_sourceId = -1;
    std::int32_t m_targetId = -1;
    bool m_bFlag = false;
    std::int32_t m_sequence = -1;
};

/// A command with its payload.
/// Threads: one at a time. Owner: the sender, or the broker for the length of a callback.
class CommandData : public BasicCommandData, public SerializedData {
public:
    CommandData(int commandId, int targetId, bool flag) : BasicCommandData(commandId, targetId, flag) {
        openOutputIfPossible();
    }
};

/// Header of a command's result. A sender takes the command as failed unless both flags are true.
class BasicCommandResult {
public:
    BasicCommandData m_commandData;
    bool m_bSucceeded = true;
    bool m_bValid = true;
};

/// A command's result with its payload.
/// Threads: one at a time. Owner: the receiver of the command, or the sender that waits for it.
class CommandResult : public BasicCommandResult, public SerializedData {
public:
    CommandResult() { openOutput(); }
};

/// Header of an event.
class BasicEventData {
public:
    explicit BasicEventData(std::int32_t eventId) : m_eventId(eventId) {}

    std::int32_t m_eventId;
    std::int32_t m_sequence = -1;
};

/// An event with its payload.
/// Threads: one at a time. Owner: the publisher, or the broker for the length of a callback.
class EventData : public BasicEventData, public SerializedData {
public:
    explicit EventData(int eventId) : BasicEventData(eventId) { openOutputIfPossible(); }

    /// Copies the header and both payloads. The copy's input archive starts at the first value, whatever was read
    /// from @p other. Comes from the broker's library.
    EventData(const EventData& other);
    EventData& operator=(const EventData&) = delete;
};

/// A log record for the hub. Its content travels in its own members; the payload stays empty.
/// Threads: one at a time. Owner: the sender.
class LogRequest : public SerializedData {
public:
    std::int32_t m_sourceId = 0;
    std::int32_t m_logType = 0;
    std::wstring m_text;
    std::wstring m_detailText;
    std::int32_t m_count = 0;
};

} // namespace HVB
