// One connection to the bus: opening, calling and waiting, each with a deadline on the steady clock.
//
// The library's own limits are not used: it would wait 25 s for an answer, and zero means that default, so a call
// with no time left fails here. Opening goes step by step for the same reason, and because a busy bus without room in
// its listening queue refuses; that is tried again until the deadline.
//
// A handler of a signal that runs during sd_bus_call makes it give up, and then nobody can say whether the call was
// made. So the signals that have handlers are blocked meanwhile, except faults.
//
// After an error isStillUsable() decides whether the connection can still be used. When in doubt it says no: a good
// connection that is given up costs an opening, and a bad one that is kept costs a call.
#include "platform/hvbhelpers/BusConnection.h"

#include "base/SignalSet.h"
#include "platform/hvbhelpers/BusAddress.h"
#include "platform/hvbhelpers/EventLoop.h"
#include "platform/hvbhelpers/HubProtocol.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>

namespace HVB::bus {
namespace {

using std::chrono::duration_cast;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;

/// How long to wait before trying again when the bus has not yet accepted the clients before us.
constexpr milliseconds kListenQueueFullPause{5};

/// The clock of sd-bus's own timeouts is the steady clock of this library.
constexpr std::uint64_t kNoTimeout = UINT64_MAX;

class BusError {
public:
    BusError() = default;
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;
    ~BusError() { sd_bus_error_free(&m_error); }

    sd_bus_error* get() { return &m_error; }

private:
    sd_bus_error m_error{};
};

std::string errnoText(int error) {
    return std::generic_category().message(error);
}

[[noreturn]] void throwUnreachable(const std::string& socketPath, int result) {
    // A bus that does not take our credentials says EPERM in the authentication.
    const int error = result == -EPERM ? EACCES : -result;
    throw HVBException(-error, "cannot reach the hub at " + socketPath + ": " + errnoText(error));
}

BusPtr newConnection(const std::string& socketPath) {
    sd_bus* raw = nullptr;
    check(sd_bus_new(&raw), "cannot make a connection");
    BusPtr bus(raw);
    check(sd_bus_set_address(raw, busAddress(socketPath).c_str()), "cannot set the hub's path");
    check(sd_bus_set_bus_client(raw, 1), "cannot make a connection");
    // A large payload is a memory file.
    check(sd_bus_negotiate_fds(raw, 1), "cannot make a connection");
    return bus;
}

/// Starts a connection. While the bus is too busy to have room in its listen queue this is tried again.
BusPtr startConnection(const std::string& socketPath, Deadline deadline, int cancelFd) {
    for (;;) {
        BusPtr bus = newConnection(socketPath);
        const int result = sd_bus_start(bus.get());
        if (result >= 0) {
            return bus;
        }
        if (result != -EAGAIN) {
            throwUnreachable(socketPath, result);
        }
        const auto again = steady_clock::now() + kListenQueueFullPause;
        if (again > deadline) {
            throwUnreachable(socketPath, -ETIMEDOUT);
        }
        if (sleepUntilReady({{-1, 0, 0}, again}, deadline, cancelFd)) {
            throwUnreachable(socketPath, -ECANCELED);
        }
    }
}

[[noreturn]] void throwCallError(int result, const sd_bus_error& error, std::int32_t handlerCode = 0) {
    throw CallError(result, error.name != nullptr ? error.name : "",
                    error.message != nullptr ? error.message : errnoText(-result), handlerCode);
}

/// The number behind the text of an error reply; 0 when there is none.
std::int32_t handlerCodeOf(sd_bus_message& reply) {
    const char* text = nullptr;
    std::int32_t code = 0;
    const bool hasBoth = sd_bus_message_has_signature(&reply, "si") > 0 && sd_bus_message_rewind(&reply, 1) >= 0 &&
                         sd_bus_message_read(&reply, "si", &text, &code) > 0;
    return hasBoth ? code : 0;
}

bool isFault(int signal) {
    return signal == SIGSEGV || signal == SIGBUS || signal == SIGFPE || signal == SIGILL || signal == SIGABRT;
}

/// The signals that the process has handlers for. sd_bus_call gives up with EINTR when one runs, and then nobody can
/// say whether the call was made. Signals without a handler end the process or do nothing, as usual.
Sentrel::SignalSet handledSignals() {
    Sentrel::SignalSet handled{};
    for (int signal = 1; signal < NSIG; ++signal) {
        struct sigaction action {};
        if (::sigaction(signal, nullptr, &action) == 0 && action.sa_handler != SIG_DFL &&
            action.sa_handler != SIG_IGN && !isFault(signal)) {
            handled.add(signal);
        }
    }
    return handled;
}

int keepReply(sd_bus_message* message, void* reply, sd_bus_error*) {
    static_cast<MessagePtr*>(reply)->reset(sd_bus_message_ref(message));
    return 1;
}

std::uint64_t microsecondsUntil(Deadline deadline) {
    const auto left = duration_cast<microseconds>(deadline - steady_clock::now()).count();
    return left > 0 ? static_cast<std::uint64_t>(left) : 0;
}

} // namespace

void CloseBus::operator()(sd_bus* bus) const noexcept {
    sd_bus_close(bus);
    sd_bus_unref(bus);
}

BusPtr openBus(const std::string& socketPath, Deadline deadline, int cancelFd) {
    BusPtr bus = startConnection(socketPath, deadline, cancelFd);
    for (;;) {
        const int processed = sd_bus_process(bus.get(), nullptr);
        if (processed < 0 && processed != -EINTR) {
            throwUnreachable(socketPath, processed);
        }
        if (sd_bus_is_ready(bus.get()) > 0) {
            return bus;
        }
        if (processed != 0) {
            continue;
        }
        if (steady_clock::now() >= deadline) {
            throwUnreachable(socketPath, -ETIMEDOUT);
        }
        if (sleepUntilReady(busWait(*bus), deadline, cancelFd)) {
            throwUnreachable(socketPath, -ECANCELED);
        }
    }
}

BusWait busWait(sd_bus& bus) {
    const int fd = sd_bus_get_fd(&bus);
    check(fd, "the connection to the hub is closed");
    const int events = sd_bus_get_events(&bus);
    check(events, "the connection to the hub is closed");
    std::uint64_t timeout = kNoTimeout;
    check(sd_bus_get_timeout(&bus, &timeout), "the connection to the hub is closed");
    BusWait wait{{fd, static_cast<short>(events), 0}, Deadline::max()};
    if (timeout != kNoTimeout) {
        const auto last = duration_cast<microseconds>(Deadline::max().time_since_epoch()).count();
        wait.until = Deadline(microseconds(std::min(timeout, static_cast<std::uint64_t>(last))));
    }
    return wait;
}

bool sleepUntilReady(BusWait wait, Deadline deadline, int wakeFd) {
    const Deadline until = std::min(wait.until, deadline);
    timespec timeout{};
    timespec* limit = nullptr;
    if (until != Deadline::max()) {
        const auto left = std::max(duration_cast<nanoseconds>(until - steady_clock::now()), nanoseconds(0)).count();
        constexpr std::int64_t perSecond = 1'000'000'000;
        timeout = {.tv_sec = left / perSecond, .tv_nsec = left % perSecond};
        limit = &timeout;
    }
    // A negative descriptor is skipped by the kernel.
    std::array<pollfd, 2> descriptors{wait.descriptor, pollfd{wakeFd, POLLIN, 0}};
    const int ready = ppoll(descriptors.data(), descriptors.size(), limit, nullptr);
    return ready > 0 && (descriptors[1].revents & POLLIN) != 0;
}

MessagePtr newCall(sd_bus& bus, const std::string& destination, const std::string& path, const char* interface,
                   const std::string& member) {
    sd_bus_message* message = nullptr;
    check(sd_bus_message_new_method_call(&bus, &message, destination.c_str(), path.c_str(), interface, member.c_str()),
          "cannot make a message");
    return MessagePtr(message);
}

MessagePtr call(sd_bus& bus, sd_bus_message& request, Deadline deadline) {
    const std::uint64_t left = microsecondsUntil(deadline);
    if (left == 0) {
        // Zero would mean sd-bus's own timeout, which is far too long.
        throw CallError(-ETIMEDOUT, SD_BUS_ERROR_TIMEOUT, "no time left for the call");
    }
    BusError error;
    sd_bus_message* reply = nullptr;
    const Sentrel::SignalsBlocked blocked(handledSignals());
    const int result = sd_bus_call(&bus, &request, left, error.get(), &reply);
    if (result < 0) {
        throwCallError(result, *error.get());
    }
    return MessagePtr(reply);
}

MessagePtr callAlone(sd_bus& bus, sd_bus_message& request, Deadline deadline, int cancelFd) {
    MessagePtr reply;
    sd_bus_slot* slot = nullptr;
    check(sd_bus_call_async(&bus, &slot, &request, &keepReply, &reply, kNoTimeout), "cannot send to the hub");
    const SlotPtr owner(slot);
    while (reply == nullptr) {
        const int processed = sd_bus_process(&bus, nullptr);
        if ((processed < 0 && processed != -EINTR) || sd_bus_is_ready(&bus) <= 0) {
            throw CallError(-ECONNRESET, SD_BUS_ERROR_DISCONNECTED, "the connection to the hub ended during a call");
        }
        if (processed != 0 || reply != nullptr) {
            continue;
        }
        if (steady_clock::now() >= deadline) {
            throw CallError(-ETIMEDOUT, SD_BUS_ERROR_TIMEOUT, "the hub did not answer in time");
        }
        if (sleepUntilReady(busWait(bus), deadline, cancelFd)) {
            throw CallError(-ECANCELED, "", errnoText(ECANCELED));
        }
    }
    if (const sd_bus_error* error = sd_bus_message_get_error(reply.get())) {
        throwCallError(-sd_bus_message_get_errno(reply.get()), *error, handlerCodeOf(*reply));
    }
    return reply;
}

bool isStillUsable(sd_bus& bus, const CallError& error) {
    // The codes that a local failure can have. An error reply may share one; then a good connection is given up.
    constexpr std::array local{ETIMEDOUT, ECONNRESET, ENOTCONN, EPIPE,  ESHUTDOWN, EINTR,
                               ENOMEM,    EBADMSG,    ECHILD,   EPROTO, EIO};
    const bool ours = std::find(local.begin(), local.end(), -error.code()) != local.end();
    const bool named = error.name().starts_with("com.orvanta.");
    return (!ours || named) && sd_bus_is_ready(&bus) > 0;
}

void appendText(sd_bus_message& message, std::wstring_view text) {
    const std::string_view bytes = asBytes(text);
    if (bytes.size() > kMaxTextBytes) {
        throw HVBException(-EMSGSIZE, "a text of " + std::to_string(bytes.size()) + " bytes is too large for the hub");
    }
    check(sd_bus_message_append_array(&message, 'y', bytes.data(), bytes.size()), "cannot fill a message");
}

std::wstring readText(sd_bus_message& message) {
    const void* bytes = nullptr;
    std::size_t size = 0;
    const int result = sd_bus_message_read_array(&message, 'y', &bytes, &size);
    if (result <= 0) {
        throw HVBException(-EBADMSG, "a message lacks a text");
    }
    std::optional<std::wstring> text = fromBytes(bytes, size);
    if (!text) {
        throw HVBException(-EBADMSG, "a message has a text of " + std::to_string(size) +
                                         " bytes, which is not whole wide characters or too large");
    }
    return *std::move(text);
}

void check(int result, std::string_view doing) {
    if (result < 0) {
        throw HVBException(result, std::string(doing) + ": " + errnoText(-result));
    }
}

} // namespace HVB::bus
