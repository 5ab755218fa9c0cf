// The settings as the hub gives them to everybody: Settings, LastWholeSettings, HandInSettings and SettingsChanged.
#pragma once

#include "apps/hvbd/LoopHandles.h"
#include "apps/hvbd/SystemLog.h"
#include "platform/hvbhelpers/BusConnection.h"
#include "platform/hvbhelpers/SnapshotText.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace HVB::hub {

/// Keeps the last snapshot that the settings keeper handed in, and the last whole one; serves both without looking into
/// them, and without the keeper. Who wants a fresh one waits until the keeper has read the file: all who wait are
/// answered by one reading that began after the last of them asked.
///
/// Generations rise within a run, and begin with the clock: after a restart of hvbd, too, another generation means
/// other settings, unless the clock was set back by exactly as much.
///
/// Bound: two snapshots, long ones in a file whose memory all receivers share, and kMaxFreshCalls calls that wait.
/// Threads: the loop's. Owner: the program; what it was given outlives it.
class SettingsService {
public:
    explicit SettingsService(const SystemLog& log);
    ~SettingsService();
    SettingsService(const SettingsService&) = delete;
    SettingsService& operator=(const SettingsService&) = delete;

    void connected(sd_bus& bus) noexcept { m_bus = &bus; }
    /// Drops the calls that wait: their senders have gone with the connection. The snapshots stay.
    void lost() noexcept;

    // Each answers a call, at once or later. @throws BadMessage, HVBException
    void handIn(sd_bus_message& call);         ///< of HandInSettings
    void serve(sd_bus_message& call);          ///< of Settings
    void serveLastWhole(sd_bus_message& call); ///< of LastWholeSettings

private:
    struct Held {
        std::uint64_t generation;
        bus::SnapshotText text;
    };
    using Calls = std::vector<bus::MessagePtr>;

    static int onRead(sd_bus_message* reply, void* self, sd_bus_error* error);

    void reply(sd_bus_message& call, const std::optional<Held>& held, const char* whatIsMissing) const;
    void waitForReading(sd_bus_message& call);
    void startReading();
    void askKeeper();
    void endReading(const sd_bus_error* error);
    void answer(const Calls& calls, const sd_bus_error* error) const;

    const SystemLog& m_log; ///< constant after construction
    // Plain, single access.
    sd_bus* m_bus = nullptr; ///< null without a connection
    std::uint64_t m_generation;
    std::optional<Held> m_last;
    std::optional<Held> m_lastWhole;
    SlotPtr m_reading; ///< set while the keeper was asked
    Calls m_asked;     ///< wait for the reading under way
    Calls m_waiting;   ///< wait for the next one
};

} // namespace HVB::hub
