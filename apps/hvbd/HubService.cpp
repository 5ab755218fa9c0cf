// The hub's methods on the bus: storing records, reading them, log lines, the state of the modules.
//
// Records are gathered into a batch and stored in one commit, since each commit waits for the disk. A batch ends when
// the loop has nothing else to do, when it is full, or when it is old enough; a lone record so waits for nobody. No
// call is answered before the commit that holds its record. A store that fails answers the whole batch with its
// error, and the next record tries again.
//
// Reading stores what is gathered first, so that a reader sees every record that came before it. Who may call what is
// the bus's policy; sizes and numbers of a message are checked here, and its texts are made printable before a line.
#include "apps/hvbd/HubService.h"

#include "apps/hvbd/CallbackGuard.h"
#include "apps/hvbd/HvbdLimits.h"
#include "base/PrintableText.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <iterator>
#include <limits>
#include <map>
#include <set>
#include <utility>

namespace HVB::hub {
namespace {

/// The bytes of a wide text that stands next in @p message; they live as long as the message.
std::string_view readTextBytes(sd_bus_message& message, const char* what) {
    const void* data = nullptr;
    std::size_t size = 0;
    bus::check(sd_bus_message_read_array(&message, 'y', &data, &size), what);
    if (size % sizeof(wchar_t) != 0) {
        throw BadMessage(fmt::format("the {} has {} bytes, which is no whole number of wide characters", what, size));
    }
    if (size > bus::kMaxTextBytes) {
        throw BadMessage(fmt::format("the {} has {} bytes; {} is the most", what, size, bus::kMaxTextBytes));
    }
    return {static_cast<const char*>(data), size};
}

std::wstring readWideText(sd_bus_message& message, const char* what) {
    const std::string_view bytes = readTextBytes(message, what);
    return *bus::fromBytes(bytes.data(), bytes.size());
}

void readNumber(sd_bus_message& message, std::int32_t& number) {
    bus::check(sd_bus_message_read_basic(&message, 'i', &number), "cannot read the message");
}

RecordNumber readRecordNumber(sd_bus_message& message) {
    RecordNumber number;
    bus::check(sd_bus_message_read(&message, "tt", &number.instance, &number.number), "cannot read the message");
    constexpr auto largest = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    if (number.number == 0 || number.number > largest) {
        throw BadMessage(fmt::format("{} is no number of a record; 1 to {} are", number.number, largest));
    }
    return number;
}

int syslogPriority(std::int32_t level) {
    constexpr std::array<int, 4> priorities{LOG_ERR, LOG_WARNING, LOG_INFO, LOG_DEBUG};
    if (level < LOG_LEVEL_ERROR || level > LOG_LEVEL_DEBUG) {
        throw BadMessage(fmt::format("{} is no log level; {} to {} are", level, static_cast<int>(LOG_LEVEL_ERROR),
                                     static_cast<int>(LOG_LEVEL_DEBUG)));
    }
    return priorities.at(static_cast<std::size_t>(level));
}

/// A text for the log, at most @p maxBytes long. A wide character takes at least a byte, so no more are looked at.
std::string shown(std::wstring_view wide, std::size_t maxBytes) {
    using namespace Sentrel::text;
    return shortened(printable(narrowed(wide.substr(0, maxBytes + 1))), maxBytes);
}

void appendRecord(sd_bus_message& reply, const StoredRecord& record) {
    constexpr const char* doing = "cannot answer with the stored records";
    bus::check(sd_bus_message_open_container(&reply, 'r', "txiiayayi"), doing);
    bus::check(sd_bus_message_append(&reply, "txii", record.id, record.storedAt, record.source, record.type), doing);
    bus::check(sd_bus_message_append_array(&reply, 'y', record.text.data(), record.text.size()), doing);
    bus::check(sd_bus_message_append_array(&reply, 'y', record.detail.data(), record.detail.size()), doing);
    bus::check(sd_bus_message_append(&reply, "i", record.count), doing);
    bus::check(sd_bus_message_close_container(&reply), doing);
}

bus::MessagePtr newReply(sd_bus_message& call) {
    sd_bus_message* reply = nullptr;
    bus::check(sd_bus_message_new_method_return(&call, &reply), "cannot make a reply");
    return bus::MessagePtr(reply);
}

void send(sd_bus_message& reply) {
    bus::check(sd_bus_send(nullptr, &reply, nullptr), "cannot send the reply");
}

} // namespace

// The bus's policy says who may call what. UNPRIVILEGED only means that the library does not add a rule of its own.
const sd_bus_vtable HubService::kVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_NAMES(bus::kLogMember, bus::kLogSignature,
                             SD_BUS_PARAM(source) SD_BUS_PARAM(type) SD_BUS_PARAM(text) SD_BUS_PARAM(detail)
                                 SD_BUS_PARAM(count),
                             bus::kLogReplySignature, SD_BUS_PARAM(id), &HubService::onLog, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES(bus::kLogNumberedMember, bus::kLogNumberedSignature,
                             SD_BUS_PARAM(instance) SD_BUS_PARAM(number) SD_BUS_PARAM(source) SD_BUS_PARAM(type)
                                 SD_BUS_PARAM(text) SD_BUS_PARAM(detail) SD_BUS_PARAM(count),
                             bus::kLogReplySignature, SD_BUS_PARAM(id), &HubService::onLogNumbered,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES(bus::kLogMessageMember, bus::kLogMessageSignature,
                             SD_BUS_PARAM(module) SD_BUS_PARAM(name) SD_BUS_PARAM(type) SD_BUS_PARAM(level)
                                 SD_BUS_PARAM(line),
                             "", "", &HubService::onLogMessage, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES(bus::kReadLogMember, bus::kReadLogSignature,
                             SD_BUS_PARAM(after) SD_BUS_PARAM(limit) SD_BUS_PARAM(newest), bus::kReadLogReplySignature,
                             SD_BUS_PARAM(records), &HubService::onReadLog, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES(bus::kStatusMember, "", "", bus::kStatusReplySignature, SD_BUS_PARAM(modules),
                             &HubService::onStatus, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES(bus::kSettingsMember, bus::kSettingsSignature, SD_BUS_PARAM(fresh),
                             bus::kSettingsReplySignature, SD_BUS_PARAM(generation) SD_BUS_PARAM(snapshot),
                             &HubService::onSettings, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES(bus::kLastWholeSettingsMember, "", "", bus::kSettingsReplySignature,
                             SD_BUS_PARAM(generation) SD_BUS_PARAM(snapshot), &HubService::onLastWholeSettings,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES(bus::kHandInSettingsMember, bus::kHandInSettingsSignature,
                             SD_BUS_PARAM(state) SD_BUS_PARAM(snapshot), bus::kHandInSettingsReplySignature,
                             SD_BUS_PARAM(generation), &HubService::onHandInSettings, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL_WITH_NAMES(bus::kSettingsChangedMember, bus::kSettingsChangedSignature, SD_BUS_PARAM(generation), 0),
    SD_BUS_SIGNAL_WITH_NAMES(bus::kLogStoredMember, bus::kLogStoredSignature, SD_BUS_PARAM(id), 0),
    SD_BUS_VTABLE_END,
};

HubService::HubService(sd_event& event, LogStore& store, ModuleConfigurations& configurations,
                       const HealthMonitor& monitor, SettingsService& settings, const SystemLog& log)
    : m_event(event), m_store(store), m_configurations(configurations), m_monitor(monitor), m_settings(settings),
      m_log(log), m_trouble(log, "log records are stored again") {}

HubService::~HubService() = default;

void HubService::openStore() noexcept {
    logAndIgnore(m_log, "opening the log store", [this] {
        try {
            m_store.open();
            shrinkWhenIdle();
        } catch (const LogStoreError& error) {
            m_trouble.met(error.message());
        }
    });
}

void HubService::connected(sd_bus& bus) {
    sd_bus_slot* slot = nullptr;
    bus::check(sd_bus_add_object_vtable(&bus, &slot, bus::kHubPath, bus::kHubInterface, kVtable, this),
               "cannot serve the hub's object");
    m_object.reset(slot);
    m_bus = &bus;
    m_settings.connected(bus);
}

void HubService::lost() noexcept {
    logAndIgnore(m_log, "storing the last records", [this] { storeGathered(); });
    m_object.reset();
    m_settings.lost();
    m_bus = nullptr;
}

int HubService::onLog(sd_bus_message* call, void* self, sd_bus_error* error) {
    return replyWithErrors(error, [&] { static_cast<HubService*>(self)->gather(*call, std::nullopt); });
}

int HubService::onLogNumbered(sd_bus_message* call, void* self, sd_bus_error* error) {
    return replyWithErrors(error, [&] { static_cast<HubService*>(self)->gather(*call, readRecordNumber(*call)); });
}

void HubService::gather(sd_bus_message& call, std::optional<RecordNumber> number) {
    PendingRecord pending{bus::MessagePtr(sd_bus_message_ref(&call)), {}};
    LogRecord& record = pending.record;
    record.number = number;
    readNumber(call, record.source);
    readNumber(call, record.type);
    record.text = readTextBytes(call, "text");
    record.detail = readTextBytes(call, "detail text");
    readNumber(call, record.count);
    m_store.checkSize(record);
    if (m_pending.empty()) {
        startBatch();
    }
    m_pendingBytes += record.text.size() + record.detail.size();
    m_pending.push_back(std::move(pending));
    if (m_pending.size() >= kMaxBatchRecords || m_pendingBytes >= kMaxBatchBytes) {
        storeGathered();
    }
}

/// The batch ends when the loop has nothing better to do, that is when the connection has no more to read, and in any
/// case after kMaxBatchAge.
void HubService::startBatch() {
    sd_event_source* source = nullptr;
    bus::check(sd_event_add_defer(&m_event, &source, onIdle, this), "cannot wait for more records");
    m_idle.reset(source);
    bus::check(sd_event_source_set_priority(source, SD_EVENT_PRIORITY_IDLE), "cannot wait for more records");
    constexpr std::uint64_t accuracy = 1000; // microseconds
    bus::check(sd_event_add_time_relative(&m_event, &source, CLOCK_MONOTONIC,
                                          static_cast<std::uint64_t>(kMaxBatchAge.count()), accuracy, onBatchAge, this),
               "cannot wait for more records");
    m_batchAge.reset(source);
    bus::check(sd_event_source_set_priority(source, SD_EVENT_PRIORITY_IMPORTANT), "cannot wait for more records");
}

int HubService::onIdle(sd_event_source* /*source*/, void* self) {
    auto& service = *static_cast<HubService*>(self);
    return logAndIgnore(service.m_log, "storing records", [&] { service.storeGathered(); });
}

int HubService::onBatchAge(sd_event_source* source, std::uint64_t /*usec*/, void* self) {
    return onIdle(source, self);
}

/// A store above its limit gives up a slice at each turn of the loop that has no message to serve.
void HubService::shrinkWhenIdle() {
    if (m_shrink != nullptr || !m_store.hasSurplus()) {
        return;
    }
    sd_event_source* source = nullptr;
    bus::check(sd_event_add_defer(&m_event, &source, onShrink, this), "cannot bring the log store to its limit");
    m_shrink.reset(source);
    bus::check(sd_event_source_set_priority(source, SD_EVENT_PRIORITY_IDLE), "cannot bring the log store to its limit");
}

int HubService::onShrink(sd_event_source* /*source*/, void* self) {
    auto& service = *static_cast<HubService*>(self);
    return logAndIgnore(service.m_log, "bringing the log store to its limit", [&] { service.shrinkStore(); });
}

void HubService::shrinkLater() {
    sd_event_source* source = nullptr;
    constexpr std::uint64_t accuracy = 0; // the library's own
    bus::check(
        sd_event_add_time_relative(&m_event, &source, CLOCK_MONOTONIC,
                                   static_cast<std::uint64_t>(std::chrono::microseconds(kSliceRetryPause).count()),
                                   accuracy, onShrinkAgain, this),
        "cannot bring the log store to its limit");
    m_shrink.reset(source);
}

int HubService::onShrinkAgain(sd_event_source* source, std::uint64_t /*usec*/, void* self) {
    return onShrink(source, self);
}

void HubService::shrinkStore() {
    m_shrink.reset();
    try {
        if (m_store.shrink()) {
            shrinkWhenIdle();
        }
        m_trouble.over();
    } catch (const LogStoreError& error) {
        m_trouble.met(error.message());
        shrinkLater();
    }
}

void HubService::storeGathered() {
    m_idle.reset();
    m_batchAge.reset();
    const std::vector<PendingRecord> batch = std::exchange(m_pending, {});
    m_pendingBytes = 0;
    if (batch.empty()) {
        return;
    }
    std::vector<LogRecord> records;
    records.reserve(batch.size());
    std::transform(batch.begin(), batch.end(), std::back_inserter(records), [](const auto& one) { return one.record; });
    std::vector<std::uint64_t> ids;
    try {
        ids = m_store.append(records);
    } catch (const LogStoreError& error) {
        answerTrouble(batch, error.message());
        return;
    } catch (const std::exception& error) {
        answerTrouble(batch, std::string("cannot store the record: ") + error.what());
        return;
    }
    m_trouble.over();
    answerStored(batch, ids);
    shrinkWhenIdle();
}

void HubService::answerTrouble(const std::vector<PendingRecord>& batch, const std::string& text) {
    m_trouble.met(text);
    for (const PendingRecord& pending : batch) {
        // A sender that cannot be answered has gone.
        static_cast<void>(sd_bus_reply_method_errorf(pending.call.get(), bus::kErrorLogStore, "%s", text.c_str()));
    }
}

void HubService::answerStored(const std::vector<PendingRecord>& batch, const std::vector<std::uint64_t>& ids) {
    for (std::size_t i = 0; i < batch.size(); ++i) {
        // A sender that cannot be answered has gone; its record stays.
        static_cast<void>(sd_bus_reply_method_return(batch[i].call.get(), bus::kLogReplySignature, ids[i]));
    }
    for (const std::uint64_t id : ids) {
        if (id == bus::kAlreadyStored) {
            continue;
        }
        static_cast<void>(sd_bus_emit_signal(m_bus, bus::kHubPath, bus::kHubInterface, bus::kLogStoredMember,
                                             bus::kLogStoredSignature, id));
    }
}

int HubService::onLogMessage(sd_bus_message* call, void* self, sd_bus_error* error) {
    return replyWithErrors(error, [&] {
        static_cast<HubService*>(self)->writeLine(*call);
        send(*newReply(*call));
    });
}

void HubService::writeLine(sd_bus_message& call) const {
    std::int32_t moduleId = 0;
    std::int32_t type = 0;
    std::int32_t level = 0;
    readNumber(call, moduleId);
    const std::wstring name = readWideText(call, "module's name");
    readNumber(call, type);
    readNumber(call, level);
    const std::wstring line = readWideText(call, "line");
    const int priority = syslogPriority(level);
    if (m_configurations.of(moduleId).wants(static_cast<hv_logLevel_enum>(level))) {
        m_log.write(priority, fmt::format("module {} ({}): {}", moduleId, shown(name, kMaxModuleNameBytes),
                                          shown(line, kMaxLogLineBytes)));
    }
}

int HubService::onReadLog(sd_bus_message* call, void* self, sd_bus_error* error) {
    return replyWithErrors(error, [&] { static_cast<HubService*>(self)->replyRecords(*call); });
}

void HubService::replyRecords(sd_bus_message& call) {
    storeGathered();
    std::uint64_t after = 0;
    std::uint32_t limit = 0;
    int newest = 0;
    bus::check(sd_bus_message_read(&call, bus::kReadLogSignature, &after, &limit, &newest), "cannot read the message");
    const std::vector<StoredRecord> records = m_store.read(after, limit, newest != 0);
    const bus::MessagePtr reply = newReply(call);
    bus::check(sd_bus_message_open_container(reply.get(), 'a', "(txiiayayi)"), "cannot make a reply");
    std::for_each(records.begin(), records.end(), [&](const auto& record) { appendRecord(*reply, record); });
    bus::check(sd_bus_message_close_container(reply.get()), "cannot make a reply");
    send(*reply);
}

int HubService::onSettings(sd_bus_message* call, void* self, sd_bus_error* error) {
    return replyWithErrors(error, [&] { static_cast<HubService*>(self)->m_settings.serve(*call); });
}

int HubService::onLastWholeSettings(sd_bus_message* call, void* self, sd_bus_error* error) {
    return replyWithErrors(error, [&] { static_cast<HubService*>(self)->m_settings.serveLastWhole(*call); });
}

int HubService::onHandInSettings(sd_bus_message* call, void* self, sd_bus_error* error) {
    return replyWithErrors(error, [&] { static_cast<HubService*>(self)->m_settings.handIn(*call); });
}

int HubService::onStatus(sd_bus_message* call, void* self, sd_bus_error* error) {
    return replyWithErrors(error, [&] { static_cast<HubService*>(self)->replyStatus(*call); });
}

void HubService::replyStatus(sd_bus_message& call) {
    const std::map<int, HealthBoard::Entry>& checked = m_monitor.board().entries();
    const std::vector<int> configured = m_configurations.modules();
    std::set<int> modules(configured.begin(), configured.end());
    std::transform(checked.begin(), checked.end(), std::inserter(modules, modules.end()),
                   [](const auto& one) { return one.first; });
    const bus::MessagePtr reply = newReply(call);
    bus::check(sd_bus_message_open_container(reply.get(), 'a', bus::kStatusEntry), "cannot make a reply");
    for (const int moduleId : modules) {
        const auto found = checked.find(moduleId);
        const bool isChecked = found != checked.end();
        bus::check(sd_bus_message_append(reply.get(), bus::kStatusEntry, moduleId,
                                         isChecked ? healthWord(found->second.health) : bus::kStateUnknown,
                                         isChecked ? isoTime(found->second.since).c_str() : "",
                                         m_configurations.look(moduleId).c_str()),
                   "cannot make a reply");
    }
    bus::check(sd_bus_message_close_container(reply.get()), "cannot make a reply");
    send(*reply);
}

} // namespace HVB::hub
