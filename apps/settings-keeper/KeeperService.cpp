// The keeper's one loop. A timer, the daemon's events, its coming and going, hvbd's questions and whoever wants the
// file each make it look; then `update` does what follows: hand in what is news, answer who can be answered, set the
// timer.
//
// What must stay so:
// - One hand-in at a time. hvbd takes them in the order of the connection, but an answer to a question must not
// overtake
//   a hand-in that failed.
// - The subscriptions stand before the first snapshot goes out, so that no event is missed between the two.
// - Without a bus the keeper still looks: it must let go of the file when somebody asks, and what changed meanwhile is
//   handed in when the bus is back.
#include "apps/settings-keeper/KeeperService.h"

#include "apps/settings-keeper/KeeperLimits.h"
#include "hub/HubIds.h"
#include "platform/hvbhelpers/HubProtocol.h"
#include "platform/hvbhelpers/SnapshotText.h"

#include <fmt/format.h>
#include <sys/inotify.h>
#include <syslog.h>

#include <algorithm>
#include <ctime>
#include <exception>
#include <iterator>
#include <string_view>
#include <utility>

namespace Sentrel::keeper {
namespace {

using settings::SettingsSnapshot;
using settings::SnapshotState;
using std::chrono::steady_clock;
namespace bus = HVB::bus;

static_assert(settings::kMaxSnapshotBytes == bus::kMaxSettingsBytes);

/// hvbd bounds who waits on its side; it asks one question at a time.
constexpr std::size_t kMaxQuestions = 16;
constexpr std::chrono::seconds kHandInDeadline{5};
constexpr std::chrono::seconds kHandInPause{1};

std::uint64_t microseconds(std::chrono::microseconds duration) {
    return static_cast<std::uint64_t>(duration.count());
}

/// The text of a snapshot; of one that is too large, a snapshot that says so.
std::pair<SnapshotState, std::string> textToHandIn(const SettingsSnapshot& snapshot) {
    try {
        return {snapshot.state, settings::textOf(snapshot)};
    } catch (const settings::SnapshotError& error) {
        SettingsSnapshot none;
        none.readAt = snapshot.readAt;
        none.reason = error.what();
        return {none.state, settings::textOf(none)};
    }
}

} // namespace

// The bus's policy says who may call.
const sd_bus_vtable KeeperService::kVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD(bus::kReadNowMember, "", "", &KeeperService::onReadNow, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES(bus::kNoteReplacementMember, bus::kNoteReplacementSignature,
                             SD_BUS_PARAM(list) SD_BUS_PARAM(rows), "", "", &KeeperService::onNoteReplacement,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

KeeperService::KeeperService(sd_event& event, std::string settingsFile, PolicyWatch policy, Tell tell)
    : m_event(event), m_tell(std::move(tell)), m_watch(std::move(settingsFile), std::move(policy)) {
    m_hangups = bus::receiveHangups(m_event, onHangup, this);
    m_watch.look(steady_clock::now());
    update();
}

KeeperService::~KeeperService() = default;

/// Runs the body of a callback. What it throws is a line in the system log.
template <class Body>
int KeeperService::guarded(const char* doing, Body&& body) noexcept {
    const auto log = [&](const char* why) noexcept {
        try {
            m_tell(LOG_ERR, fmt::format("{} failed: {}", doing, why));
        } catch (...) {
            syslog(LOG_ERR, "%s failed", doing);
        }
    };
    try {
        body();
    } catch (const HVB::HVBException& failed) {
        log(failed.message().c_str());
    } catch (const std::exception& failed) {
        log(failed.what());
    }
    return 0;
}

void KeeperService::connected(sd_bus& bus) {
    m_bus = &bus;
    m_sent.reset();
    sd_bus_slot* slot = nullptr;
    bus::check(sd_bus_add_object_vtable(&bus, &slot, bus::kKeeperPath, bus::kKeeperInterface, kVtable, this),
               "cannot serve the keeper's object");
    m_slots.emplace_back(slot);
    for (const int id : {EVT_DASHBOARD_STATUS_CHANGE, EVT_PREFERENCES_CHANGE}) {
        // Who may send events the bus's policy says.
        bus::check(sd_bus_match_signal(&bus, &slot, nullptr, bus::kEventsPath, bus::kEventsInterface,
                                       bus::eventMember(id).c_str(), onEvent, this),
                   "cannot subscribe to the daemon's events");
        m_slots.emplace_back(slot);
    }
    // With the sender, since anybody may send a signal of this name to this connection.
    constexpr const char* rule = "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
                                 "interface='org.freedesktop.DBus',member='NameOwnerChanged',"
                                 "arg0namespace='com.orvanta.hvb1'";
    bus::check(sd_bus_add_match(&bus, &slot, rule, onOwnerChanged, this), "cannot watch the hub's names");
    m_slots.emplace_back(slot);
    update();
}

void KeeperService::lost() noexcept {
    m_handing.reset();
    m_questions.clear();
    m_noter.reset();
    m_watch.note(std::nullopt, steady_clock::now()); // its sender cannot be watched any more
    m_slots.clear();
    m_sent.reset();
    m_bus = nullptr;
}

int KeeperService::onTimer(sd_event_source* /*source*/, std::uint64_t /*usec*/, void* self) {
    auto& keeper = *static_cast<KeeperService*>(self);
    return keeper.guarded("looking at the settings file", [&] {
        keeper.m_timer.reset();
        const Time now = steady_clock::now();
        if (keeper.m_isEventWaiting && now - keeper.m_eventTakenAt >= kBetweenEvents) {
            keeper.takeEvent(now);
        } else {
            keeper.m_watch.look(now);
        }
        keeper.update();
    });
}

/// Reads again and hands in, whether or not it is news.
int KeeperService::onHangup(sd_event_source* /*source*/, const signalfd_siginfo* /*signal*/, void* self) {
    auto& keeper = *static_cast<KeeperService*>(self);
    return keeper.guarded("SIGHUP", [&] {
        keeper.m_sent.reset();
        keeper.m_watch.compare(steady_clock::now());
        keeper.update();
    });
}

int KeeperService::onAsked(sd_event_source* /*source*/, const inotify_event* /*change*/, void* self) {
    return onTimer(nullptr, 0, self);
}

int KeeperService::onEvent(sd_bus_message* /*signal*/, void* self, sd_bus_error* /*error*/) {
    auto& keeper = *static_cast<KeeperService*>(self);
    return keeper.guarded("an event", [&] {
        const Time now = steady_clock::now();
        if (now - keeper.m_eventTakenAt < kBetweenEvents) {
            keeper.m_isEventWaiting = true;
            keeper.setTimer();
            return;
        }
        keeper.takeEvent(now);
        keeper.update();
    });
}

void KeeperService::takeEvent(Time now) {
    m_isEventWaiting = false;
    m_eventTakenAt = now;
    m_watch.daemonTold(now);
}

int KeeperService::onOwnerChanged(sd_bus_message* signal, void* self, sd_bus_error* /*error*/) {
    auto& keeper = *static_cast<KeeperService*>(self);
    return keeper.guarded("a change on the bus", [&] { keeper.takeOwnerChange(*signal); });
}

void KeeperService::takeOwnerChange(sd_bus_message& signal) {
    const char* name = nullptr;
    const char* before = nullptr;
    const char* now = nullptr;
    bus::check(sd_bus_message_read(&signal, "sss", &name, &before, &now), "cannot read whose name changed");
    if (name == bus::moduleName(HVB::MODULE_SENTREL)) {
        m_watch.daemonChanged(steady_clock::now());
    } else if (std::string_view(name) == bus::kHubName && *now != '\0') {
        m_sent.reset(); // another hvbd, which has nothing
        m_handing.reset();
    }
    update();
}

int KeeperService::onReadNow(sd_bus_message* call, void* self, sd_bus_error* error) {
    auto& keeper = *static_cast<KeeperService*>(self);
    if (keeper.m_questions.size() >= kMaxQuestions) {
        return sd_bus_error_set(error, bus::kErrorBusy, "too many calls wait for the settings keeper");
    }
    keeper.guarded("a fresh reading", [&] {
        const Time now = steady_clock::now();
        keeper.m_questions.push_back({bus::MessagePtr(sd_bus_message_ref(call)), now + kFreshWait});
        keeper.m_watch.compare(now);
        keeper.update();
    });
    return 1;
}

int KeeperService::onNoteReplacement(sd_bus_message* call, void* self, sd_bus_error* error) {
    auto& keeper = *static_cast<KeeperService*>(self);
    const char* list = nullptr;
    std::uint64_t rows = 0;
    const int read = sd_bus_message_read(call, bus::kNoteReplacementSignature, &list, &rows);
    const std::string_view name = read > 0 ? list : "?";
    if (!name.empty() && name != "allow_block" && name != "categories" && name != "private_ranges") {
        return sd_bus_error_set(error, bus::kErrorBadMessage, "the note names no list of the settings");
    }
    keeper.guarded("a note", [&] { keeper.takeNote(*call, std::string(name), rows); });
    return sd_bus_reply_method_return(call, "");
}

/// The last note counts, until it is taken back or its sender leaves the bus.
void KeeperService::takeNote(sd_bus_message& call, const std::string& list, std::uint64_t rows) {
    m_noter.reset();
    std::optional<settings::Replacement> note;
    if (!list.empty()) {
        sd_bus_track* track = nullptr;
        bus::check(sd_bus_track_new(m_bus, &track, onNoterGone, this), "cannot watch who sent a note");
        m_noter.reset(track);
        bus::check(sd_bus_track_add_sender(track, &call), "cannot watch who sent a note");
        note = settings::Replacement{list, rows, 0};
    }
    m_watch.note(std::move(note), steady_clock::now());
    update();
}

int KeeperService::onNoterGone(sd_bus_track* /*track*/, void* self) {
    auto& keeper = *static_cast<KeeperService*>(self);
    return keeper.guarded("the end of a note", [&] {
        keeper.m_watch.note(std::nullopt, steady_clock::now());
        keeper.update();
    });
}

/// Does what follows from a look.
void KeeperService::update() {
    m_watch.checkWhenDue(steady_clock::now());
    setTimer();
    watchForAsking();
    tellNews();
    handIn();
    answer();
}

void KeeperService::setTimer() {
    sd_event_source* source = nullptr;
    const std::chrono::milliseconds pause = m_isEventWaiting ? kBetweenEvents : m_watch.untilNextLook();
    if (m_isEventWaiting && m_timer != nullptr && m_isTimerForEvent) {
        return; // further events do not put it off
    }
    m_isTimerForEvent = m_isEventWaiting;
    bus::check(sd_event_add_time_relative(&m_event, &source, CLOCK_MONOTONIC, microseconds(pause),
                                          microseconds(kLateness) / 10, onTimer, this),
               "cannot set a timer");
    m_timer.reset(source);
}

/// Has the loop told when somebody asks for the file. Without it the next look finds out.
void KeeperService::watchForAsking() {
    if (!m_watch.isHeld()) {
        m_asking.reset();
    } else if (m_asking == nullptr) {
        sd_event_source* source = nullptr;
        if (sd_event_add_inotify(&m_event, &source, m_watch.askingFile().c_str(), IN_ATTRIB, onAsked, this) >= 0) {
            m_asking.reset(source);
        }
    }
}

/// A line in the system log when the file cannot be read, when it is damaged or short, and when that is over.
void KeeperService::tellNews() {
    if (!m_watch.snapshot()) {
        return;
    }
    const SettingsSnapshot& snapshot = *m_watch.snapshot();
    const std::string trouble = snapshot.state != SnapshotState::Whole ? snapshot.reason
                                : snapshot.check                       ? snapshot.check->trouble
                                                                       : "";
    if (trouble != std::exchange(m_told, trouble)) {
        if (trouble.empty()) {
            m_tell(LOG_NOTICE, "the settings file is whole");
        } else {
            m_tell(LOG_WARNING, fmt::format("the settings file: {}", trouble));
        }
    }
}

bool KeeperService::isHandedIn() const {
    return m_sent == m_watch.revision() && m_handing == nullptr;
}

void KeeperService::handIn() {
    const bool isNews = m_watch.snapshot() && m_sent != m_watch.revision();
    if (m_bus == nullptr || m_handing != nullptr || !isNews ||
        (m_handInAgainAt && steady_clock::now() < *m_handInAgainAt)) {
        return;
    }
    m_handInAgainAt.reset();
    const bus::MessagePtr request =
        bus::newCall(*m_bus, bus::kHubName, bus::kHubPath, bus::kHubInterface, bus::kHandInSettingsMember);
    auto [state, text] = textToHandIn(*m_watch.snapshot());
    bus::check(sd_bus_message_append(request.get(), "s", std::string(settings::stateWord(state)).c_str()),
               "cannot hand the settings in");
    bus::SnapshotText::of(std::move(text)).appendTo(*request);
    sd_bus_slot* slot = nullptr;
    bus::check(sd_bus_call_async(m_bus, &slot, request.get(), onHandedIn, this, microseconds(kHandInDeadline)),
               "cannot hand the settings in");
    m_handing.reset(slot);
    m_sent = m_watch.revision();
}

int KeeperService::onHandedIn(sd_bus_message* reply, void* self, sd_bus_error* /*error*/) {
    auto& keeper = *static_cast<KeeperService*>(self);
    return keeper.guarded("handing the settings in", [&] { keeper.endHandIn(sd_bus_message_get_error(reply)); });
}

void KeeperService::endHandIn(const sd_bus_error* error) {
    m_handing.reset();
    if (error != nullptr) {
        m_sent.reset();
        m_handInAgainAt = steady_clock::now() + kHandInPause;
        const bool isAway = sd_bus_error_has_name(error, SD_BUS_ERROR_SERVICE_UNKNOWN) > 0 ||
                            sd_bus_error_has_name(error, SD_BUS_ERROR_NAME_HAS_NO_OWNER) > 0;
        if (!isAway) {
            m_tell(LOG_WARNING, fmt::format("hvbd does not take the settings: {}",
                                            error->message != nullptr ? error->message : error->name));
        }
    }
    update();
}

/// Answers the questions whose answer is known, and those that have waited long enough.
void KeeperService::answer() {
    const Time now = steady_clock::now();
    const bool isGivenAway = !m_watch.isHeld() && !m_watch.trouble().empty(); // for who knows how long
    const bool isDone = isGivenAway || (m_watch.isSettled() && isHandedIn());
    const auto isAnswered = [&](const Question& question) {
        if (!isDone && now < question.until) {
            return false;
        }
        // Who cannot be answered has gone. A list that is still changing is said to be so in the text.
        if (isHandedIn() && m_watch.trouble().empty()) {
            static_cast<void>(sd_bus_reply_method_return(question.call.get(), ""));
        } else {
            const std::string& why = m_watch.trouble();
            static_cast<void>(
                sd_bus_reply_method_errorf(question.call.get(), bus::kErrorFailed, "%s",
                                           why.empty() ? "hvbd does not take the settings" : why.c_str()));
        }
        return true;
    };
    m_questions.erase(std::remove_if(m_questions.begin(), m_questions.end(), isAnswered), m_questions.end());
}

} // namespace Sentrel::keeper
