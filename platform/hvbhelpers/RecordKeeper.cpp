// The model. Every record gets the next number of this process's instance. While nothing waits in the spool a record is
// sent at once and its sender waits for the hub's answer. When no answer comes in time, or the hub cannot store it now,
// the record goes into the spool, and its sender goes on. From then on every record goes into the spool, behind the
// others, until the thread has delivered them all: so order holds, and only the first record waits for a hub that is
// stopped.
//
// Nobody knows whether a record whose answer was lost was stored. It is sent again with its number, and the hub stores
// a number once. One record is on its way at a time, so the hub needs to remember the last number alone. An instance
// is a life of the process: numbers need not be kept on the disk, and those in the spool belong to their own instance.
//
// The thread sends the oldest record and removes it when the hub has stored it. A record that the hub will never store
// is removed as well, or it would keep back all others. While the hub is away the thread sleeps on its connection and
// listens for the hub's name: whatever comes in wakes it, else a pause that grows.
//
// A handler of a signal may call the broker in place. So whoever takes a lock here blocks those signals first; the
// thread has all of them blocked.
#include "platform/hvbhelpers/RecordKeeper.h"

#include "base/PackedText.h"
#include "base/SignalSet.h"
#include "base/StartThread.h"
#include "platform/hvbhelpers/Carriers.h"
#include "platform/hvbhelpers/ErrorText.h"
#include "platform/hvbhelpers/HubLimits.h"
#include "platform/hvbhelpers/HubProtocol.h"

#include <sodium.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <system_error>
#include <utility>

namespace HVB::detail {
namespace {

using std::chrono::steady_clock;

/// The signals whose handlers call the broker.
Sentrel::SignalSet handlersSignals() {
    return {SIGTERM, SIGHUP, SIGUSR2};
}

/// What stands in front of a record's packed texts in the spool.
struct RecordFields {
    std::uint64_t instance;
    std::uint64_t number;
    std::int32_t source;
    std::int32_t type;
    std::int32_t count;
    std::uint32_t textBytes; ///< of both texts, unpacked, these are the first one's
};
static_assert(sizeof(RecordFields) == 32, "no padding");

std::uint64_t newInstance() {
    std::uint64_t instance = 0;
    randombytes_buf(&instance, sizeof instance);
    return instance;
}

void requireSize(std::wstring_view text) {
    if (text.size() * sizeof(wchar_t) > bus::kMaxTextBytes) {
        throw HVBException(-EMSGSIZE, "a text of " + std::to_string(text.size() * sizeof(wchar_t)) +
                                          " bytes is too large for the hub");
    }
}

NumberedRecord recordOf(const LogRequest& request, std::uint64_t instance, std::uint64_t number) {
    return {instance,
            number,
            request.m_sourceId,
            request.m_logType,
            request.m_count,
            std::string(bus::asBytes(request.m_text)),
            std::string(bus::asBytes(request.m_detailText))};
}

bus::MessagePtr newLogCall(sd_bus& bus, const NumberedRecord& record) {
    constexpr const char* doing = "cannot fill a message";
    bus::MessagePtr message =
        bus::newCall(bus, bus::kHubName, bus::kHubPath, bus::kHubInterface, bus::kLogNumberedMember);
    bus::check(sd_bus_message_append(message.get(), "ttii", record.instance, record.number, record.source, record.type),
               doing);
    for (const std::string& text : {std::cref(record.text), std::cref(record.detail)}) {
        bus::check(sd_bus_message_append_array(message.get(), 'y', text.data(), text.size()), doing);
    }
    bus::check(sd_bus_message_append(message.get(), "i", record.count), doing);
    return message;
}

/// Whether the hub has said that it will never store the record. Anything else may pass.
bool isForGood(const bus::CallError& error) {
    return error.name() == bus::kErrorLogRefused || error.name() == bus::kErrorBadMessage;
}

void listenForTheHub(sd_bus& bus, bus::Deadline deadline) {
    const bus::MessagePtr request = bus::newCall(bus, bus::kDriver, bus::kDriverPath, bus::kDriver, "AddMatch");
    const std::string rule = std::string("type='signal',sender='") + bus::kDriver + "',interface='" + bus::kDriver +
                             "',member='NameOwnerChanged',arg0='" + bus::kHubName + "'";
    bus::check(sd_bus_message_append(request.get(), "s", rule.c_str()), "cannot fill a message");
    (void)bus::call(bus, *request, deadline);
}

bus::Deadline callDeadline() {
    return steady_clock::now() + bus::kCallTimeout;
}

} // namespace

std::string packRecord(const NumberedRecord& record) {
    const RecordFields fields{record.instance, record.number, record.source,
                              record.type,     record.count,  static_cast<std::uint32_t>(record.text.size())};
    return std::string(reinterpret_cast<const char*>(&fields), sizeof fields) +
           Sentrel::packWide(record.text + record.detail);
}

std::optional<NumberedRecord> unpackRecord(std::string_view bytes) {
    RecordFields fields{};
    if (bytes.size() < sizeof fields) {
        return std::nullopt;
    }
    std::memcpy(&fields, bytes.data(), sizeof fields);
    const auto texts = Sentrel::unpackWide(bytes.substr(sizeof fields), 2 * bus::kMaxTextBytes);
    if (!texts || fields.textBytes > texts->size()) {
        return std::nullopt;
    }
    return NumberedRecord{fields.instance,
                          fields.number,
                          fields.source,
                          fields.type,
                          fields.count,
                          texts->substr(0, fields.textBytes),
                          texts->substr(fields.textBytes)};
}

RecordKeeper::RecordKeeper(std::string socketPath, const std::string& spoolPath, Tell tell, std::size_t spoolBytes)
    : m_socketPath(std::move(socketPath)), m_tell(std::move(tell)), m_instance(newInstance()), m_pool(m_socketPath),
      m_file(spoolPath, spoolBytes) {}

void RecordKeeper::begin() {
    if (m_thread.joinable()) {
        return;
    }
    m_ending = false;
    m_wake.take();
    try {
        m_thread = Sentrel::startThread("hvb-spool", [this] { run(); });
    } catch (const std::system_error& error) {
        throw HVBException(-error.code().value(), error.what());
    }
}

void RecordKeeper::end() {
    m_ending = true;
    m_wake.wake();
    {
        const Sentrel::SignalsBlocked held(handlersSignals());
        const Sentrel::MutexLock lock(m_mutex);
        m_changed.notifyAll();
        if (m_socket >= 0) {
            // The thread waits for an answer on it, and meets the end of the stream.
            (void)::shutdown(m_socket, SHUT_RDWR);
        }
    }
    const Sentrel::MutexLock ending(m_endMutex);
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

SpoolCounts RecordKeeper::counts() {
    const Sentrel::SignalsBlocked held(handlersSignals());
    const Sentrel::MutexLock lock(m_mutex);
    return m_file.counts();
}

// Handing over.

void RecordKeeper::hand(const LogRequest& request) {
    requireSize(request.m_text);
    requireSize(request.m_detailText);
    const Sentrel::SignalsBlocked held(handlersSignals());
    const Sentrel::MutexLock turn(m_turn);
    const NumberedRecord record = recordOf(request, m_instance, ++m_lastNumber);
    if (!isSpoolEmpty() || !sendDirectly(record)) {
        keep(record);
    }
}

bool RecordKeeper::isSpoolEmpty() {
    const Sentrel::MutexLock lock(m_mutex);
    return m_file.isEmpty();
}

/// @return whether it is stored. @throws CallError when it never will be.
bool RecordKeeper::sendDirectly(const NumberedRecord& record) {
    const bus::Deadline deadline = callDeadline();
    try {
        m_pool.call([&](sd_bus& bus) { return newLogCall(bus, record); }, [](sd_bus_message&) {}, deadline, deadline);
        return true;
    } catch (const bus::CallError& error) {
        if (isForGood(error)) {
            const Sentrel::MutexLock lock(m_mutex);
            m_file.countRefusedByHub();
            throw;
        }
        traceComm("a record is kept: ", error.message());
    } catch (const HVBException& error) {
        traceComm("a record is kept: ", error.message());
    }
    return false;
}

void RecordKeeper::keep(const NumberedRecord& record) {
    const std::string bytes = packRecord(record);
    const Sentrel::MutexLock lock(m_mutex);
    if (m_file.isEmpty()) {
        m_saidFull = false;
    }
    try {
        if (!m_file.append(bytes)) {
            throw HVBException(-ENOSPC, "the spool of reports is full");
        }
    } catch (const HVBException& error) {
        sayOnce(m_saidFull, "reports are lost while the hub is away: " + error.message());
        throw;
    }
    m_changed.notifyAll();
}

void RecordKeeper::sayOnce(std::atomic<bool>& said, const std::string& line) {
    if (!said.exchange(true)) {
        m_tell(line);
    }
}

// Delivering: the thread.

void RecordKeeper::run() {
    auto pause = kFirstReconnectPause;
    while (!m_ending) {
        bool isDelivered = false;
        try {
            isDelivered = deliverFirst();
        } catch (...) {
            // Of the file: the disk failed. What waits stays, and is tried again.
            traceComm(currentExceptionText());
        }
        if (isDelivered || m_ending) {
            pause = kFirstReconnectPause;
            continue;
        }
        awaitHub(pause);
        pause = std::min(pause * 2, kLastReconnectPause);
    }
    disconnect();
}

/// @return false when the hub is to be waited for.
bool RecordKeeper::deliverFirst() {
    const std::optional<NumberedRecord> record = awaitFirst();
    if (!record) {
        return true;
    }
    switch (send(*record)) {
    case Answer::Stored:
        m_saidRefused = false;
        remove(SpoolFile::End::Delivered);
        return true;
    case Answer::Refused:
        sayOnce(m_saidRefused, "a report that waited is dropped: the hub will never store it");
        remove(SpoolFile::End::RefusedByHub);
        return true;
    case Answer::None:
        break;
    }
    return false;
}

/// Waits until a record waits. @return nothing at the end.
std::optional<NumberedRecord> RecordKeeper::awaitFirst() {
    const Sentrel::MutexLock lock(m_mutex);
    while (!m_ending) {
        if (std::optional<NumberedRecord> record = takeFirst()) {
            return record;
        }
        m_changed.wait(m_mutex);
    }
    return std::nullopt;
}

/// The first record that makes sense; those before it are dropped.
std::optional<NumberedRecord> RecordKeeper::takeFirst() {
    while (const std::optional<std::string> bytes = m_file.first()) {
        if (std::optional<NumberedRecord> record = unpackRecord(*bytes)) {
            return record;
        }
        m_tell("a report that waited is dropped: it cannot be read");
        m_file.removeFirst(SpoolFile::End::Damaged);
    }
    return std::nullopt;
}

void RecordKeeper::remove(SpoolFile::End how) {
    const Sentrel::MutexLock lock(m_mutex);
    m_file.removeFirst(how);
}

RecordKeeper::Answer RecordKeeper::send(const NumberedRecord& record) {
    try {
        connect();
        const bus::MessagePtr request = newLogCall(*m_bus, record);
        (void)bus::callAlone(*m_bus, *request, callDeadline());
        return Answer::Stored;
    } catch (const bus::CallError& error) {
        if (isForGood(error)) {
            return Answer::Refused;
        }
        traceComm("records wait: ", error.message());
        if (!bus::isStillUsable(*m_bus, error)) {
            disconnect();
        }
    } catch (const HVBException& error) {
        traceComm("records wait: ", error.message());
        disconnect();
    }
    return Answer::None;
}

void RecordKeeper::connect() {
    if (m_bus != nullptr) {
        return;
    }
    const bus::Deadline deadline = callDeadline();
    bus::BusPtr bus = bus::openBus(m_socketPath, deadline, m_wake.fd());
    {
        const Sentrel::MutexLock lock(m_mutex);
        if (m_ending) {
            throw HVBException(-ECANCELED, "the hub client ends"); // nobody would shut this connection down
        }
        m_socket = sd_bus_get_fd(bus.get());
    }
    m_bus = std::move(bus);
    listenForTheHub(*m_bus, deadline);
}

void RecordKeeper::disconnect() {
    {
        const Sentrel::MutexLock lock(m_mutex);
        m_socket = -1;
    }
    m_bus.reset();
}

/// Whatever comes in on the connection is a reason to try again: the hub's name has a new owner, or a late answer shows
/// that it works.
void RecordKeeper::awaitHub(std::chrono::milliseconds pause) noexcept {
    const bus::Deadline deadline = steady_clock::now() + pause;
    try {
        if (m_bus == nullptr) {
            (void)bus::sleepUntilReady({{-1, 0, 0}, deadline}, deadline, m_wake.fd());
            return;
        }
        (void)bus::sleepUntilReady(bus::busWait(*m_bus), deadline, m_wake.fd());
        int processed = 0;
        while ((processed = sd_bus_process(m_bus.get(), nullptr)) > 0) {
        }
        bus::check(processed, "the connection to the hub ended");
    } catch (...) {
        traceComm(currentExceptionText());
        disconnect();
    }
}

} // namespace HVB::detail
