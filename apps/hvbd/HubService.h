// The hub's object on the bus: Log, LogNumbered, LogMessage, ReadLog, Status and the signal LogStored; and those of the
// settings.
#pragma once

#include "apps/hvbd/HealthMonitor.h"
#include "apps/hvbd/LogStore.h"
#include "apps/hvbd/LoopHandles.h"
#include "apps/hvbd/ModuleConfiguration.h"
#include "apps/hvbd/SettingsService.h"
#include "apps/hvbd/SystemLog.h"
#include "platform/hvbhelpers/BusConnection.h"

#include <optional>
#include <vector>

namespace HVB::hub {

/// Serves the hub's methods on a connection.
///
/// Log calls are gathered while the connection has more to read, stored in one transaction and only then answered,
/// each with its own id. So a burst costs one sync, a single record waits for nobody, and no answer runs ahead of the
/// disk. Every other method sees all the records that arrived before it.
///
/// Threads: the loop's. Owner: the program; what it was given outlives it.
class HubService {
public:
    HubService(sd_event& event, LogStore& store, ModuleConfigurations& configurations, const HealthMonitor& monitor,
               SettingsService& settings, const SystemLog& log);
    ~HubService();
    HubService(const HubService&) = delete;
    HubService& operator=(const HubService&) = delete;

    /// Opens the store ahead of the first record, so that trouble is reported at start. One that exceeds its limit
    /// comes down to it while the loop has nothing else to do.
    void openStore() noexcept;

    /// Serves @p bus from now on. @throws HVBException
    void connected(sd_bus& bus);
    /// Stores what was gathered and forgets the connection. Answers that cannot be sent any more are dropped.
    void lost() noexcept;

    /// Stores and answers what was gathered.
    void storeGathered();

private:
    struct PendingRecord {
        bus::MessagePtr call; ///< owns the texts
        LogRecord record;
    };

    static const sd_bus_vtable kVtable[];
    static int onLog(sd_bus_message* call, void* self, sd_bus_error* error);
    static int onLogNumbered(sd_bus_message* call, void* self, sd_bus_error* error);
    static int onLogMessage(sd_bus_message* call, void* self, sd_bus_error* error);
    static int onReadLog(sd_bus_message* call, void* self, sd_bus_error* error);
    static int onStatus(sd_bus_message* call, void* self, sd_bus_error* error);
    static int onSettings(sd_bus_message* call, void* self, sd_bus_error* error);
    static int onLastWholeSettings(sd_bus_message* call, void* self, sd_bus_error* error);
    static int onHandInSettings(sd_bus_message* call, void* self, sd_bus_error* error);
    static int onIdle(sd_event_source* source, void* self);
    static int onBatchAge(sd_event_source* source, std::uint64_t usec, void* self);
    static int onShrink(sd_event_source* source, void* self);
    static int onShrinkAgain(sd_event_source* source, std::uint64_t usec, void* self);

    void gather(sd_bus_message& call, std::optional<RecordNumber> number);
    void startBatch();
    void shrinkWhenIdle();
    void shrinkLater();
    void shrinkStore();
    void answerTrouble(const std::vector<PendingRecord>& batch, const std::string& text);
    void answerStored(const std::vector<PendingRecord>& batch, const std::vector<std::uint64_t>& ids);
    void writeLine(sd_bus_message& call) const;
    void replyRecords(sd_bus_message& call);
    void replyStatus(sd_bus_message& call);

    // Constant after construction.
    sd_event& m_event;
    LogStore& m_store;
    ModuleConfigurations& m_configurations;
    const HealthMonitor& m_monitor;
    SettingsService& m_settings;
    const SystemLog& m_log;
    // Plain, single access.
    sd_bus* m_bus = nullptr; ///< null without a connection
    SlotPtr m_object;
    std::vector<PendingRecord> m_pending;
    std::size_t m_pendingBytes = 0;
    SourcePtr m_idle;
    SourcePtr m_batchAge;
    SourcePtr m_shrink; ///< set while the store exceeds its limit: for the next slice
    TroubleReport m_trouble;
};

} // namespace HVB::hub
