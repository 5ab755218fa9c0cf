// One connection to the hub's bus, with a deadline on everything that waits. The broker, hvbd and the command line
// client all go through it.
#pragma once

#include "hub/Exceptions.h"

#include <systemd/sd-bus.h>

#include <poll.h>

#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace HVB::bus {

using Deadline = std::chrono::steady_clock::time_point;

struct CloseBus {
    void operator()(sd_bus* bus) const noexcept; ///< Closes at once; what is still queued is dropped.
};
struct UnrefMessage {
    void operator()(sd_bus_message* message) const noexcept { sd_bus_message_unref(message); }
};
/// A connection. Threads: one at a time. Owner: the holder.
using BusPtr = std::unique_ptr<sd_bus, CloseBus>;
/// A message. Threads: those of its connection. Owner: the holder.
using MessagePtr = std::unique_ptr<sd_bus_message, UnrefMessage>;

/// A call that brought no ordinary reply. The name is that of the error reply, or the one that sd-bus gives to a local
/// failure; the code is as call says. Whoever decides by what went wrong asks these, never the text.
class CallError : public HVBException {
public:
    CallError(std::int32_t code, std::string name, const std::string& text, std::int32_t handlerCode = 0)
        : HVBException(code, text), m_name(std::move(name)), m_handlerCode(handlerCode) {}

    const std::string& name() const { return m_name; }
    /// The code of the exception that left the other side's handler, when callAlone was told of one; otherwise 0.
    std::int32_t handlerCode() const { return m_handlerCode; }

private:
    std::string m_name;
    std::int32_t m_handlerCode;
};

/// Connects to the bus at @p socketPath and waits until it has answered our hello.
/// @param cancelFd unless -1: the wait ends with -ECANCELED as soon as this descriptor can be read.
/// @throws HVBException with -ENOENT or -ECONNREFUSED when nobody listens there, -ETIMEDOUT at the deadline,
///         -EACCES when the bus refuses our credentials, -ECONNRESET when it hangs up, as it does at its limits.
BusPtr openBus(const std::string& socketPath, Deadline deadline, int cancelFd = -1);

/// What a connection waits for: its descriptor with the events to poll for, and when it wants to run in any case.
struct BusWait {
    pollfd descriptor;
    Deadline until;
};

/// Requires what sd_bus_process requires of its caller; the wait itself needs no access to the connection.
BusWait busWait(sd_bus& bus);

/// Sleeps until @p wait is over, @p deadline has passed, @p wakeFd (unless -1) can be read, or a signal was handled.
/// @return whether @p wakeFd can be read.
bool sleepUntilReady(BusWait wait, Deadline deadline, int wakeFd);

/// A method call to be filled and sent. @throws HVBException when it cannot be made.
MessagePtr newCall(sd_bus& bus, const std::string& destination, const std::string& path, const char* interface,
                   const std::string& member);

/// Sends @p request and waits for its reply. Other messages that arrive meanwhile stay queued on the connection.
/// Signals that the process handles are held back from this thread meanwhile. May be used in a handler of sd-bus. After
/// an exception for which isStillUsable is false, give the connection up: a late reply may still arrive on it.
/// @throws CallError with a negative errno: -ETIMEDOUT at the deadline, -EACCES when the bus's policy refuses,
///         -EHOSTUNREACH when the destination is not on the bus, -ECONNRESET when the bus went away, and
///         what sd_bus_error_get_errno(3) says of any other error; its message is the error's own.
MessagePtr call(sd_bus& bus, sd_bus_message& request, Deadline deadline);

/// As call, for a connection that is used for calls alone: whatever else arrives is dropped, and signals are handled as
/// usual. Not to be used in a handler of sd-bus.
/// @param cancelFd unless -1: the wait ends with -ECANCELED as soon as this descriptor can be read.
MessagePtr callAlone(sd_bus& bus, sd_bus_message& request, Deadline deadline, int cancelFd = -1);

/// Whether a connection on which call threw @p error can take the next call.
bool isStillUsable(sd_bus& bus, const CallError& error);

/// Appends a wide text as an array of bytes. @throws HVBException with -EMSGSIZE beyond kMaxTextBytes.
void appendText(sd_bus_message& message, std::wstring_view text);

/// Reads the array of bytes that stands next as a wide text.
/// @throws HVBException with -EBADMSG when there is none or it is not whole wide characters.
std::wstring readText(sd_bus_message& message);

/// Throws when @p result is a negative errno, as the sd-bus functions return it. @p doing says what was tried.
void check(int result, std::string_view doing);

} // namespace HVB::bus
