// Commands to the daemon over the hub, with the checks that every answer needs.
#pragma once

#include "apps/sentrelctl/terminal/Failure.h"
#include "hub/HVBMessages.h"

#include <exception>
#include <new>
#include <string>

namespace Sentrel::ctl {

/// What could not be done, and what to do when no answer came in time, and when the daemon failed.
struct CommandPurpose {
    const char* what;
    const char* afterTimeout = nullptr; ///< for a change, which may yet be made; null for a question
    const char* afterFailure = nullptr; ///< null: its trace log says more
    bool readsConfiguration = false;    ///< its handler fails when it cannot read the hub's configuration of the module
};

/// The failure for an answer that this program does not understand.
Failure unreadableAnswer(const char* what, const char* why);

/// Takes the one value out of @p result. @throws Failure when there is none, or it cannot be read.
template <class Value>
Value payloadOf(HVB::CommandResult& result, const char* what) {
    if (result.m_pInArchive == nullptr) {
        throw unreadableAnswer(what, "it has no payload");
    }
    Value value{};
    try {
        result.readPayload(value);
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& error) {
        throw unreadableAnswer(what, error.what());
    }
    return value;
}

/// Sends commands to the daemon, each of which waits for its answer.
/// Threads: one at a time. Owner: the verb; there is one in a process, since the broker ends with it.
class CommandChannel {
public:
    /// Does not connect yet. @param timeout seconds that each command may take; a part of one counts as a whole.
    explicit CommandChannel(double timeout);
    ~CommandChannel();
    CommandChannel(const CommandChannel&) = delete;
    CommandChannel& operator=(const CommandChannel&) = delete;

    /// @throws Failure when no answer came. The flags of one that came are the caller's to look at.
    void send(HVB::CommandData& command, HVB::CommandResult& result, const CommandPurpose& purpose) const;

    /// As send, and an answer that says failed is a Failure too.
    void sendAndCheck(HVB::CommandData& command, HVB::CommandResult& result, const CommandPurpose& purpose) const;

private:
    std::string m_socketPath;
    int m_timeout;
};

} // namespace Sentrel::ctl
