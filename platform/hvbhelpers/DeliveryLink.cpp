// The model. An sd-bus connection may be used by one thread at a time, so everything that touches it, or a message
// that belongs to it, holds m_mutex; and nothing that waits holds it. The reader sleeps on the socket outside the
// lock. Senders put their message on the connection themselves, which saves a wake-up of the reader for each reply;
// only when the socket is full do they wake the reader, which polls for room from then on, and wait for it. m_turn lets
// senders and reader take turns.
//
// What arrives is copied out of its message under the lock and handed on; a call's message stays in m_pending until
// it is answered. The number under which it waits, the token, is made here and is unique in the process: senders are
// not trusted to number their calls.
//
// When a connection ends, for whatever reason, the reader drops it with all that belonged to it and tries to connect
// again, with longer and longer pauses. Whoever waits for something of that connection sees m_generation change.
//
// The newest process of a module has its name. Who loses it answers what it has taken, closes the connection and never
// connects again: two processes that take the name from each other would share the work in halves. Who was away from
// the bus when that happened finds the name taken when it comes back, and does the same.
#include "platform/hvbhelpers/DeliveryLink.h"

#include "base/StartThread.h"
#include "platform/hvbhelpers/ErrorText.h"
#include "platform/hvbhelpers/HubLimits.h"
#include "platform/hvbhelpers/HubProtocol.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace HVB::detail {
namespace {

using bus::Deadline;
using std::chrono::steady_clock;

bus::MessagePtr addMatchCall(sd_bus& bus, std::int32_t eventId) {
    bus::MessagePtr request = bus::newCall(bus, bus::kDriver, bus::kDriverPath, bus::kDriver, "AddMatch");
    const std::string rule = std::string("type='signal',interface='") + bus::kEventsInterface + "',member='" +
                             bus::eventMember(eventId) + "',path='" + bus::kEventsPath + "'";
    bus::check(sd_bus_message_append(request.get(), "s", rule.c_str()), "cannot fill a message");
    return request;
}

std::string errorTextOf(sd_bus_message& reply) {
    const sd_bus_error* error = sd_bus_message_get_error(&reply);
    return error != nullptr && error->message != nullptr ? error->message : "an error without a text";
}

/// The broker's callers know one type of failure.
Sentrel::WakeUp newWakeUp() {
    try {
        return Sentrel::WakeUp();
    } catch (const std::system_error& error) {
        throw HVBException(-error.code().value(), error.what());
    }
}

} // namespace

DeliveryLink::DeliveryLink(std::string socketPath, LinkReceiver receiver)
    : m_socketPath(std::move(socketPath)), m_receiver(std::move(receiver)), m_wake(newWakeUp()) {}

// The connection.

void DeliveryLink::connectNow(Deadline deadline) {
    subscribeAndInstall(connect(deadline, -1), deadline);
}

bus::BusPtr DeliveryLink::connect(Deadline deadline, int cancelFd) {
    bus::BusPtr bus = bus::openBus(m_socketPath, deadline, cancelFd);
    addObjects(*bus);
    takeName(*bus, deadline);
    return bus;
}

/// The newest process of a module has its name, and lets the next one have it. Behind one that does not give it up, as
/// a process of an earlier version, this one queues. Who had the name before does not take it from another process: it
/// was away from the bus when that one came, and did not hear of it.
void DeliveryLink::takeName(sd_bus& bus, Deadline deadline) {
    constexpr std::uint32_t allowReplacement = 1;
    constexpr std::uint32_t replaceExisting = 2;
    constexpr std::uint32_t doNotQueue = 4;
    if (m_moduleId < 0) {
        return;
    }
    if (m_hadName && requestName(bus, allowReplacement | doNotQueue, deadline)) {
        return;
    }
    if (m_hadName && !isNameOurs(bus, deadline)) {
        m_isTakenOver = true;
        throw HVBException(-EOWNERDEAD, "another process has taken the module's name");
    }
    m_hadName = requestName(bus, allowReplacement | replaceExisting | doNotQueue, deadline);
    if (!m_hadName) {
        (void)requestName(bus, allowReplacement, deadline);
    }
}

/// Whether a connection of this process has the name: an earlier one whose end the bus has not seen yet.
bool DeliveryLink::isNameOurs(sd_bus& bus, Deadline deadline) const {
    const bus::MessagePtr request =
        bus::newCall(bus, bus::kDriver, bus::kDriverPath, bus::kDriver, "GetConnectionUnixProcessID");
    bus::check(sd_bus_message_append(request.get(), "s", bus::moduleName(m_moduleId).c_str()), "cannot fill a message");
    const bus::MessagePtr reply = bus::call(bus, *request, deadline);
    std::uint32_t process = 0;
    bus::check(sd_bus_message_read(reply.get(), "u", &process), "cannot read an answer of the bus");
    return static_cast<pid_t>(process) == ::getpid();
}

/// @return whether this connection has the name now.
bool DeliveryLink::requestName(sd_bus& bus, std::uint32_t flags, Deadline deadline) const {
    constexpr std::uint32_t isOwner = 1;
    const bus::MessagePtr request = bus::newCall(bus, bus::kDriver, bus::kDriverPath, bus::kDriver, "RequestName");
    bus::check(sd_bus_message_append(request.get(), "su", bus::moduleName(m_moduleId).c_str(), flags),
               "cannot fill a message");
    const bus::MessagePtr reply = bus::call(bus, *request, deadline);
    std::uint32_t result = 0;
    bus::check(sd_bus_message_read(reply.get(), "u", &result), "cannot read an answer of the bus");
    return result == isOwner;
}

/// Makes the subscriptions that were noted down, and has the connection used. That there are no more of them is seen
/// under the lock under which it comes into use: whoever subscribes later finds it.
void DeliveryLink::subscribeAndInstall(bus::BusPtr bus, Deadline deadline) {
    std::set<std::int32_t> done;
    for (;;) {
        std::set<std::int32_t> wanted;
        {
            const Sentrel::MutexLock lock(m_mutex);
            std::set_difference(m_subscriptions.begin(), m_subscriptions.end(), done.begin(), done.end(),
                                std::inserter(wanted, wanted.end()));
            if (wanted.empty()) {
                m_bus = std::move(bus);
                ++m_generation;
                m_changed.notifyAll();
                return;
            }
        }
        for (const std::int32_t eventId : wanted) {
            const bus::MessagePtr request = addMatchCall(*bus, eventId);
            (void)bus::call(*bus, *request, deadline);
            done.insert(eventId);
        }
    }
}

void DeliveryLink::lose(int error) noexcept {
    const char* const why = ::strerrordesc_np(-error);
    traceComm("the connection to the hub ended: ", why != nullptr ? why : "unknown error");
    m_pending.clear();
    m_senders.clear(); // the next bus gives the names anew
    m_bus.reset();
    ++m_generation;
    m_changed.notifyAll();
}

// The reader.

void DeliveryLink::begin() {
    if (!m_begun && !m_ending) {
        m_reader = Sentrel::startThread("hvb-reader", [this] { run(); });
        m_begun = true;
    }
}

void DeliveryLink::end() {
    m_ending = true;
    m_wake.wake();
    if (m_reader.joinable()) {
        m_reader.join();
    }
    const Sentrel::MutexLock lock(m_mutex);
    if (m_bus != nullptr) {
        lose(-ECANCELED);
    }
}

void DeliveryLink::run() {
    auto pause = kFirstReconnectPause;
    while (!m_ending && !m_isTakenOver) {
        const Deadline upSince = steady_clock::now();
        pumpAndSurvive();
        if (steady_clock::now() - upSince > kLastReconnectPause) {
            pause = kFirstReconnectPause;
        }
        if (m_ending || m_isTakenOver ||
            bus::sleepUntilReady({{-1, 0, 0}, steady_clock::now() + pause}, Deadline::max(), m_wake.fd())) {
            m_wake.take();
            continue;
        }
        pause = std::min(pause * 2, kLastReconnectPause);
        try {
            const Deadline deadline = steady_clock::now() + bus::kCallTimeout;
            subscribeAndInstall(connect(deadline, m_wake.fd()), deadline);
        } catch (...) {
            traceComm(currentExceptionText());
        }
    }
    if (m_isTakenOver) {
        m_receiver.takenOver();
    }
}

/// What goes wrong in the pump, such as memory that is short, costs the connection and not the process.
void DeliveryLink::pumpAndSurvive() noexcept {
    try {
        pump();
    } catch (...) {
        traceComm(currentExceptionText());
        const Sentrel::MutexLock lock(m_mutex);
        if (m_bus != nullptr) {
            lose(-EIO);
        }
    }
}

/// Handles what arrives until the connection ends. Returns at once when there is none.
void DeliveryLink::pump() {
    bus::BusWait wait{};
    while (!m_ending) {
        {
            Sentrel::MutexLock turn(m_turn);
            const Sentrel::MutexLock lock(m_mutex);
            turn.unlock();
            if (m_bus == nullptr) {
                return;
            }
            const int processed = sd_bus_process(m_bus.get(), nullptr);
            if ((processed < 0 && processed != -EINTR) || sd_bus_is_ready(m_bus.get()) < 0) {
                lose(processed);
                return;
            }
            if (processed != 0) {
                continue;
            }
            if (!hasUnsent()) {
                m_changed.notifyAll();
                if (m_isTakenOver && m_pending.empty()) {
                    lose(-EOWNERDEAD);
                    return;
                }
            }
            wait = bus::busWait(*m_bus);
        }
        if (bus::sleepUntilReady(wait, Deadline::max(), m_wake.fd())) {
            m_wake.take();
        }
    }
}

void DeliveryLink::awaitConnected(Deadline deadline) {
    const Sentrel::MutexLock lock(m_mutex);
    while (m_bus == nullptr) {
        if (m_isTakenOver || (!m_changed.waitUntil(m_mutex, deadline) && m_bus == nullptr)) {
            throw HVBException(-ETIMEDOUT, "cannot reach the hub at " + m_socketPath);
        }
    }
}

// Sending.

sd_bus& DeliveryLink::requireBus() const {
    if (m_bus == nullptr) {
        throw HVBException(-ENOTCONN, "not connected to the hub at " + m_socketPath);
    }
    return *m_bus;
}

bool DeliveryLink::hasUnsent() const {
    std::uint64_t queued = 0;
    return sd_bus_get_n_queued_write(m_bus.get(), &queued) >= 0 && queued > 0;
}

void DeliveryLink::sendLocked(sd_bus_message& message) {
    bus::check(sd_bus_send(&requireBus(), &message, nullptr), "cannot send to the hub");
    if (hasUnsent()) {
        m_wake.wake();
    }
}

void DeliveryLink::flushLocked(Deadline deadline) {
    const std::uint64_t generation = m_generation;
    bool isInTime = true;
    while (m_generation == generation && m_bus != nullptr && hasUnsent()) {
        if (!isInTime) {
            throw HVBException(-ETIMEDOUT, "the hub at " + m_socketPath + " takes nothing");
        }
        isInTime = m_changed.waitUntil(m_mutex, deadline);
    }
    if (m_generation != generation) {
        throw HVBException(-ECONNRESET, "the connection to the hub at " + m_socketPath + " ended");
    }
}

void DeliveryLink::post(const Make& make, Deadline deadline) {
    Sentrel::MutexLock turn(m_turn);
    const Sentrel::MutexLock lock(m_mutex);
    turn.unlock();
    requireBus();
    // A sender that meets a full socket waits here first, so that no more messages pile up than there are senders.
    flushLocked(deadline);
    const bus::MessagePtr message = make(requireBus());
    sendLocked(*message);
    flushLocked(deadline);
}

void DeliveryLink::reply(std::uint64_t token, const Fill& fill, Deadline deadline) {
    Sentrel::MutexLock turn(m_turn);
    const Sentrel::MutexLock lock(m_mutex);
    turn.unlock();
    const auto call = m_pending.find(token);
    if (call == m_pending.end()) {
        throw HVBException(-ENOENT, "no command with this token waits for a reply");
    }
    if (call->second.wantsReply) {
        sd_bus_message* raw = nullptr;
        bus::check(sd_bus_message_new_method_return(call->second.message.get(), &raw), "cannot make a reply");
        const bus::MessagePtr message(raw);
        fill(*message);
        sendLocked(*message);
    }
    m_pending.erase(call);
    wakeWhenTakenOver();
    flushLocked(deadline);
}

/// The reader waits for the last answer before it gives the connection up.
void DeliveryLink::wakeWhenTakenOver() const noexcept {
    if (m_isTakenOver) {
        m_wake.wake();
    }
}

void DeliveryLink::refuse(std::uint64_t token, const char* error, const char* text, std::int32_t handlerCode) noexcept {
    Sentrel::MutexLock turn(m_turn);
    const Sentrel::MutexLock lock(m_mutex);
    turn.unlock();
    refuseLocked(token, error, text, handlerCode);
}

void DeliveryLink::refuseLocked(std::uint64_t token, const char* error, const char* text,
                                std::int32_t handlerCode) noexcept {
    try {
        answerError(token, error, text, handlerCode);
    } catch (...) {
        traceComm(currentExceptionText());
    }
}

void DeliveryLink::answerError(std::uint64_t token, const char* error, const char* text, std::int32_t handlerCode) {
    const auto call = m_pending.find(token);
    if (call == m_pending.end()) {
        return;
    }
    const PendingCall pending = std::move(call->second);
    m_pending.erase(call);
    wakeWhenTakenOver();
    if (pending.wantsReply) {
        const sd_bus_error answer{error, text, 0};
        sd_bus_message* raw = nullptr;
        bus::check(sd_bus_message_new_method_error(pending.message.get(), &raw, &answer), "cannot make a reply");
        const bus::MessagePtr message(raw);
        if (handlerCode != 0) {
            bus::check(sd_bus_message_append(message.get(), "i", handlerCode), "cannot fill a message");
        }
        sendLocked(*message);
    }
}

// Calls whose reply comes later.

/// What waits for a reply. sd-bus owns it through the slot of the call, and frees it with the connection at the latest.
struct DeliveryLink::ReplyWait {
    Done done;
};

void DeliveryLink::onReplySlotGone(void* wait) {
    delete static_cast<ReplyWait*>(wait);
}

int DeliveryLink::onReply(sd_bus_message* message, void* wait, sd_bus_error*) {
    try {
        static_cast<ReplyWait*>(wait)->done(*message);
    } catch (...) {
        traceComm(currentExceptionText());
    }
    return 1;
}

void DeliveryLink::callLaterLocked(const Make& make, std::chrono::microseconds timeout, Done done) {
    if (timeout.count() <= 0) {
        // Zero would mean the library's own 25 s, and less than that for ever.
        throw HVBException(-ETIMEDOUT, "no time left for the call");
    }
    const bus::MessagePtr request = make(requireBus());
    auto wait = std::make_unique<ReplyWait>(ReplyWait{std::move(done)});
    sd_bus_slot* slot = nullptr;
    bus::check(sd_bus_call_async(m_bus.get(), &slot, request.get(), &DeliveryLink::onReply, wait.get(),
                                 static_cast<std::uint64_t>(timeout.count())),
               "cannot send to the hub");
    // Cannot fail for the slot of a call that was just made.
    (void)sd_bus_slot_set_destroy_callback(slot, &DeliveryLink::onReplySlotGone);
    (void)wait.release();
    (void)sd_bus_slot_set_floating(slot, 1);
    sd_bus_slot_unref(slot);
    // The reader has a new timeout to wait for, perhaps a message to send.
    m_wake.wake();
}

void DeliveryLink::callLater(const Make& make, std::chrono::seconds timeout, Done done) {
    Sentrel::MutexLock turn(m_turn);
    const Sentrel::MutexLock lock(m_mutex);
    turn.unlock();
    callLaterLocked(make, timeout, std::move(done));
}

void DeliveryLink::subscribe(std::int32_t eventId, Deadline deadline) {
    const Sentrel::MutexLock lock(m_mutex);
    if (!m_subscriptions.insert(eventId).second || m_bus == nullptr) {
        return;
    }
    struct Outcome {
        bool answered = false;
        int code = 0;
        std::string error;
    };
    const auto outcome = std::make_shared<Outcome>();
    const std::uint64_t generation = m_generation;
    try {
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - steady_clock::now());
        callLaterLocked([eventId](sd_bus& bus) { return addMatchCall(bus, eventId); }, left,
                        [this, outcome](sd_bus_message& reply) {
                            outcome->answered = true;
                            if (sd_bus_message_is_method_error(&reply, nullptr) > 0) {
                                outcome->code = -sd_bus_message_get_errno(&reply);
                                outcome->error = errorTextOf(reply);
                            }
                            m_changed.notifyAll();
                        });
        while (!outcome->answered && m_generation == generation) {
            m_changed.wait(m_mutex);
        }
        if (outcome->code != 0) {
            throw HVBException(outcome->code, "the hub takes no subscription: " + outcome->error);
        }
    } catch (...) {
        m_subscriptions.erase(eventId);
        throw;
    }
    // A connection that ended meanwhile is made anew with this subscription.
}

} // namespace HVB::detail
