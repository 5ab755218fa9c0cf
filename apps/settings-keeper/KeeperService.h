// The settings keeper on the bus: what it hears, what it is asked, and what it hands in.
#pragma once

#include "apps/settings-keeper/SettingsWatch.h"
#include "platform/hvbhelpers/BusConnection.h"
#include "platform/hvbhelpers/EventLoop.h"

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Sentrel::keeper {

/// Looks at the settings file, with the bus and without it, and hands every snapshot that is news to hvbd: one at a
/// time, the last one again when hvbd has restarted. A question is answered when hvbd has what the file held.
/// Threads: the loop's. Owner: the program; what it was given outlives it.
class KeeperService {
public:
    using Tell = std::function<void(int priority, const std::string& line)>;

    /// Looks for the first time. @throws HVB::HVBException when the loop takes no timer.
    KeeperService(sd_event& event, std::string settingsFile, PolicyWatch policy, Tell tell);
    ~KeeperService();
    KeeperService(const KeeperService&) = delete;
    KeeperService& operator=(const KeeperService&) = delete;

    /// Serves @p bus from now on. @throws HVB::HVBException
    void connected(sd_bus& bus);
    /// Forgets the connection, and who asked over it.
    void lost() noexcept;

private:
    using Time = SettingsWatch::Time;

    struct UnrefTrack {
        void operator()(sd_bus_track* track) const noexcept { sd_bus_track_unref(track); }
    };
    struct Question {
        HVB::bus::MessagePtr call;
        Time until; ///< then it is answered with what there is
    };

    static const sd_bus_vtable kVtable[];
    static int onReadNow(sd_bus_message* call, void* self, sd_bus_error* error);
    static int onNoteReplacement(sd_bus_message* call, void* self, sd_bus_error* error);
    static int onNoterGone(sd_bus_track* track, void* self);
    static int onEvent(sd_bus_message* signal, void* self, sd_bus_error* error);
    static int onOwnerChanged(sd_bus_message* signal, void* self, sd_bus_error* error);
    static int onHandedIn(sd_bus_message* reply, void* self, sd_bus_error* error);
    static int onTimer(sd_event_source* source, std::uint64_t usec, void* self);
    static int onHangup(sd_event_source* source, const signalfd_siginfo* signal, void* self);
    static int onAsked(sd_event_source* source, const inotify_event* change, void* self);
    template <class Body>
    int guarded(const char* doing, Body&& body) noexcept;

    void takeEvent(Time now);
    void takeNote(sd_bus_message& call, const std::string& list, std::uint64_t rows);
    void takeOwnerChange(sd_bus_message& signal);
    void update();
    void setTimer();
    void watchForAsking();
    void tellNews();
    void handIn();
    void endHandIn(const sd_bus_error* error);
    void answer();
    bool isHandedIn() const;

    // Constant after construction.
    sd_event& m_event;
    const Tell m_tell;
    // Plain, single access.
    SettingsWatch m_watch;
    sd_bus* m_bus = nullptr; ///< null without a connection
    std::vector<HVB::bus::SlotPtr> m_slots;
    HVB::bus::SourcePtr m_hangups;
    HVB::bus::SourcePtr m_timer;
    HVB::bus::SourcePtr m_asking;        ///< set while the file is held
    HVB::bus::SlotPtr m_handing;         ///< set while hvbd has not answered
    std::optional<std::uint64_t> m_sent; ///< the last revision that went out on this connection
    std::optional<Time> m_handInAgainAt; ///< after hvbd refused one
    std::vector<Question> m_questions;
    Time m_eventTakenAt;                               ///< the last one
    bool m_isEventWaiting = false;                     ///< until kBetweenEvents have passed
    bool m_isTimerForEvent = false;                    ///< the timer is for the event that waits
    std::unique_ptr<sd_bus_track, UnrefTrack> m_noter; ///< who said that it replaces a list
    std::string m_told;                                ///< the state that was told last
};

} // namespace Sentrel::keeper
