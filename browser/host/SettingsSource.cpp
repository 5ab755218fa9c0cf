// The hub says that the settings have changed, and is asked for them. Its word that requests for access have changed is
// passed on: who shows one asks for it.  Everything else is about a hub that does not
// answer: it is away, or hangs, or has not been given any settings yet, or there is no settings file.
//
// What must stay so:
// - The subscriptions stand before the first question, so that no change is missed between the two.
// - Once there are whole settings there are some for ever. Whatever the hub says or does not say, the last whole ones
//   decide, and the browser is told that they are kept and why.
// - Each wait has a deadline, and ends with the source.
// - Settings that say the same as those in force are no news: a browser gets its lists again only when they changed.
#include "browser/host/SettingsSource.h"

#include "base/PrintableText.h"
#include "base/StartThread.h"
#include "platform/hvbhelpers/HubProtocol.h"
#include "platform/hvbhelpers/SnapshotText.h"

#include <chrono>
#include <exception>
#include <functional>
#include <set>
#include <string_view>
#include <utility>

namespace Sentrel::host {
namespace {

namespace bus = HVB::bus;
using settings::SettingsSnapshot;
using settings::SnapshotState;
using std::chrono::steady_clock;

/// Between two tries to reach the hub, or two questions that it did not answer.
constexpr std::chrono::milliseconds kHubPause{500};
/// How long one try to reach the bus may take.
constexpr std::chrono::milliseconds kReachTimeout{1000};

bus::Deadline callDeadline() {
    return steady_clock::now() + bus::kCallTimeout;
}

/// Whether @p whole decides as @p snapshot says. What decides has no category's number and no order of them.
bool decidesAs(const WholeSettings& whole, const SettingsSnapshot& snapshot) {
    std::set<std::string, std::less<>> names;
    for (const settings::ListEntry& category : snapshot.categories) {
        names.insert(category.name);
    }
    return whole.numbers == snapshot.numbers && whole.policy == snapshot.policy &&
           whole.rules.entries() == snapshot.allowBlock && whole.rules.ranges() == snapshot.privateRanges &&
           whole.rules.categories() == names;
}

void addMatch(sd_bus& connection, const std::string& rule) {
    // Whose signals these are is looked at when they have been received.
    bus::check(sd_bus_add_match(&connection, nullptr, rule.c_str(), nullptr, nullptr), "cannot subscribe at the hub");
}

/// With their senders: without them the bus passes on what anybody sends.
void subscribe(sd_bus& connection) {
    bus::check(sd_bus_set_method_call_timeout(
                   &connection, static_cast<std::uint64_t>(std::chrono::microseconds(bus::kCallTimeout).count())),
               "cannot set a deadline");
    addMatch(connection, std::string("type='signal',sender='") + bus::kHubName + "',interface='" + bus::kHubInterface +
                             "',member='" + bus::kSettingsChangedMember + "'");
    addMatch(connection, std::string("type='signal',sender='") + bus::kHubName + "',interface='" +
                             bus::kRequestsInterface + "',member='" + bus::kRequestsChangedMember + "'");
    addMatch(connection, std::string("type='signal',sender='") + bus::kDriver + "',interface='" + bus::kDriver +
                             "',member='NameOwnerChanged',arg0='" + bus::kHubName + "'");
}

/// Whether a farewell or a welcome of the hub is the first; none for any other message.
std::optional<bool> hubIsGone(sd_bus_message& signal) {
    const char* name = nullptr;
    const char* before = nullptr;
    const char* now = nullptr;
    if (sd_bus_message_is_signal(&signal, bus::kDriver, "NameOwnerChanged") <= 0 ||
        sd_bus_message_read(&signal, "sss", &name, &before, &now) <= 0) {
        return std::nullopt;
    }
    return *now == '\0';
}

/// What a user is told of a hub that gives no settings.
std::string whyNot(const HVB::HVBException& error) {
    return "the hub gives no settings: " + text::printable(error.message());
}
std::string whyNot(const bus::CallError& error) {
    if (error.name() == bus::kErrorNoSettings) {
        return "the hub has not been given any settings yet";
    }
    if (error.name() == SD_BUS_ERROR_SERVICE_UNKNOWN || error.name() == SD_BUS_ERROR_NAME_HAS_NO_OWNER) {
        return "the hub does not run";
    }
    return whyNot(static_cast<const HVB::HVBException&>(error));
}

} // namespace

SettingsSource::SettingsSource(std::string hubSocket, SettingsCache cache, Tell tell)
    : m_hubSocket(std::move(hubSocket)), m_cache(std::move(cache)), m_tell(std::move(tell)),
      m_thread(startThread("settings", [this] { run(); })) {}

SettingsSource::~SettingsSource() {
    m_stop.wake();
    m_thread.join();
}

HeldSettings SettingsSource::take() {
    const MutexLock lock(m_mutex);
    static_cast<void>(m_news.take());
    return m_held;
}

bool SettingsSource::takeRequestsChanged() {
    const MutexLock lock(m_mutex);
    return std::exchange(m_requestsChanged, false);
}

void SettingsSource::run() {
    do {
        try {
            follow();
        } catch (const bus::CallError& error) {
            keepWhatThereIs(whyNot(error));
        } catch (const HVB::HVBException& error) {
            keepWhatThereIs(whyNot(error));
        } catch (const std::exception& error) {
            keepWhatThereIs(std::string("the settings cannot be read: ") + text::printable(error.what()));
        }
    } while (!m_stop.waitUntil(steady_clock::now() + kHubPause));
}

/// Keeps one connection until it ends or this is to. @throws HVBException when it ends.
void SettingsSource::follow() {
    const bus::BusPtr connection = bus::openBus(m_hubSocket, steady_clock::now() + kReachTimeout, m_stop.fd());
    subscribe(*connection);
    bool isDue = true;
    for (bus::Deadline next = steady_clock::now();;) {
        if (isDue && steady_clock::now() >= next) {
            isDue = !ask(*connection);
            next = steady_clock::now() + kHubPause;
        }
        const bool wasDue = isDue;
        receive(*connection, isDue);
        if (isDue && !wasDue) {
            next = steady_clock::now();
        }
        if (bus::sleepUntilReady(bus::busWait(*connection), isDue ? next : bus::Deadline::max(), m_stop.fd())) {
            return;
        }
    }
}

/// @return whether the hub answered. @throws HVBException when the connection cannot be used any more.
bool SettingsSource::ask(sd_bus& connection) {
    try {
        takeText(bus::askForSettings(connection, bus::kSettingsMember, false, callDeadline()));
        return true;
    } catch (const bus::CallError& error) {
        if (!bus::isStillUsable(connection, error)) {
            throw;
        }
        keepWhatThereIs(whyNot(error));
        return false;
    }
}

/// Takes what has arrived. @param isDue becomes true when the settings are to be asked for.
void SettingsSource::receive(sd_bus& connection, bool& isDue) {
    for (;;) {
        sd_bus_message* received = nullptr;
        const int more = sd_bus_process(&connection, &received);
        const bus::MessagePtr message(received);
        bus::check(more, "the connection to the hub ended");
        if (more == 0) {
            return;
        }
        if (message == nullptr) {
            continue;
        }
        const std::optional<bool> isGone = hubIsGone(*message);
        if (isGone && *isGone) {
            keepWhatThereIs("the hub does not run");
        }
        if ((isGone && !*isGone) ||
            sd_bus_message_is_signal(message.get(), bus::kRequestsInterface, bus::kRequestsChangedMember) > 0) {
            noteRequestsChanged();
        }
        isDue = isDue || isGone ||
                sd_bus_message_is_signal(message.get(), bus::kHubInterface, bus::kSettingsChangedMember) > 0;
    }
}

void SettingsSource::takeText(const std::string& text) {
    const SettingsSnapshot snapshot = settings::snapshotOf(text);
    if (snapshot.state == SnapshotState::None) {
        keepWhatThereIs(snapshot.reason);
    } else {
        takeSnapshot(snapshot);
    }
}

void SettingsSource::takeSnapshot(const SettingsSnapshot& snapshot) {
    if (m_whole == nullptr || !decidesAs(*m_whole, snapshot)) {
        m_whole = std::make_shared<const WholeSettings>(snapshot);
    }
    publish({HeldSettings::State::Current, "", m_whole});
    m_told.clear();
    if (m_whole != m_cached) {
        writeCache(snapshot);
    }
}

void SettingsSource::keepWhatThereIs(const std::string& because) {
    if (m_whole == nullptr && !std::exchange(m_hasReadCache, true)) {
        readCache();
    }
    publish({m_whole != nullptr ? HeldSettings::State::Kept : HeldSettings::State::Waiting, because, m_whole});
    if (because != m_told) {
        m_told = because;
        m_tell(because + (m_whole != nullptr ? "; the last settings are kept" : "; there are no settings yet"));
    }
}

void SettingsSource::readCache() {
    try {
        if (const std::optional<SettingsSnapshot> snapshot = m_cache.read()) {
            m_whole = m_cached = std::make_shared<const WholeSettings>(*snapshot);
        }
    } catch (const std::exception& error) {
        m_tell(std::string("the copy of the last settings is passed over: ") + text::printable(error.what()));
    }
}

void SettingsSource::writeCache(const SettingsSnapshot& snapshot) {
    m_cached = m_whole; // a copy that cannot be made is not tried again before the next change
    try {
        m_cache.write(snapshot);
    } catch (const std::exception& error) {
        m_tell(std::string("no copy of the settings can be kept: ") + text::printable(error.what()));
    }
}

void SettingsSource::publish(HeldSettings held) {
    const MutexLock lock(m_mutex);
    if (held != m_held) {
        m_held = std::move(held);
        m_news.wake();
    }
}

void SettingsSource::noteRequestsChanged() {
    const MutexLock lock(m_mutex);
    m_requestsChanged = true;
    m_news.wake();
}

} // namespace Sentrel::host
