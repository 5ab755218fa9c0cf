// A broker that reaches no hub: it records the order of calls and fails when it is told to. Link the target
// sentrel_recording_broker instead of sentrel_hvbhelpers. Real: the carriers and all that the daemon does with them.
// Not real: delivery, threads, the bus.
#pragma once

#include "hub/HVBCommBroker.h"
#include "tests/support/ArchiveValue.h"

#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace testing_support {

/// What a LogRequest held when it was handed over.
struct SentLog {
    int sourceId;
    int logType;
    std::wstring text;
    std::wstring detailText;
    int count;
};

/// What a CommandResult held when it was sent.
struct SentReply {
    HVB::BasicCommandData header;
    bool succeeded;
    bool valid;
    bool hasPayload;
    std::wstring text; ///< its whole archive text

    /// The payload. @throws boost::archive::archive_exception when it is no such value.
    template <class Value>
    Value payload() const {
        return valueIn<Value>(text);
    }
};

/// What a command held when it was sent.
struct SentCommand {
    int id;
    int target;
    bool flag;
    std::wstring text; ///< its whole archive text
};

/// What an event held when it was published.
struct SentEvent {
    int id;
    bool hasPayload;
    bool operator==(const SentEvent&) const = default;
};

/// The recording behind HVB::HVBCommBroker and HVB_LOG_MSG.
/// Threads: any. Owner: one a process, fresh for each test.
struct Recording {
    static Recording& instance();

    /// Every call in its order: the operation's name, then its plain arguments, as in "setHVId 7".
    std::vector<std::string> calls();
    void add(const std::string& call);
    /// Forgets calls, replies, events, commands, logs and lines, for a caller that goes on for long.
    void forget();

    std::vector<SentReply> replies;    ///< what sendCommandResponse was given
    std::vector<SentEvent> events;     ///< what sendEventNotification was given
    std::vector<SentCommand> commands; ///< what sendCommand was given
    std::vector<SentLog> logs;         ///< what sendLog was given
    std::vector<std::wstring> lines;   ///< what HVB_LOG_MSG was given, formatted
    std::size_t copiedEvents = 0;      ///< how often an EventData was copied
    std::function<void(HVB::CommandResult& result)>
        answer; ///< fills the result of a command; without it both flags stay
    HVB::CommandInterface* commandInterface = nullptr;
    HVB::HealthCheckInterface* healthCheckInterface = nullptr;
    HVB::EventInterface* eventInterface = nullptr;

    /// Called at the start of each operation with its name; what it throws leaves the operation.
    std::function<void(const std::string& operation)> before;

private:
    std::mutex m_mutex;
    std::vector<std::string> m_calls;
};

} // namespace testing_support
