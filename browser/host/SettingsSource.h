// The settings from the hub, at every change, and the last ones while it is away.
#pragma once

#include "base/Mutex.h"
#include "base/WakeUp.h"
#include "browser/host/HeldSettings.h"
#include "browser/host/SettingsCache.h"
#include "platform/hvbhelpers/BusConnection.h"

#include <functional>
#include <string>
#include <thread>

namespace Sentrel::host {

/// Follows the hub on a thread of its own, since a hub may hang and a long list takes time to read; nobody who asks for
/// a decision waits for either. Tries for ever to reach the hub, once a second.
/// Threads: those of its maker's and its own, as it says. Owner: the program.
class SettingsSource {
public:
    /// Gets a line for people. Called on the source's thread.
    using Tell = std::function<void(const std::string& line)>;

    /// @throws std::system_error when the system gives no thread or descriptor.
    SettingsSource(std::string hubSocket, SettingsCache cache, Tell tell);
    /// Ends within the deadline of one call.
    ~SettingsSource();
    SettingsSource(const SettingsSource&) = delete;
    SettingsSource& operator=(const SettingsSource&) = delete;

    /// Readable when there is news that take has not given. Threads: any.
    int fd() const { return m_news.fd(); }
    /// What holds now. Threads: any.
    HeldSettings take();
    /// Whether the hub has said, since this was last asked, that requests for access changed; or has been away, so that
    /// they may have. Changes that nobody has asked about yet are one. Threads: any.
    bool takeRequestsChanged();

private:
    // All of these run on the source's thread.
    void run();
    void follow();
    bool ask(sd_bus& bus);
    void receive(sd_bus& bus, bool& isDue);
    void takeText(const std::string& text);
    void takeSnapshot(const settings::SettingsSnapshot& snapshot);
    void keepWhatThereIs(const std::string& because);
    void readCache();
    void writeCache(const settings::SettingsSnapshot& snapshot);
    void publish(HeldSettings held);
    void noteRequestsChanged();

    // Constant after construction.
    const std::string m_hubSocket;
    const SettingsCache m_cache;
    const Tell m_tell;
    // Own locking.
    WakeUp m_stop;
    WakeUp m_news;
    // Of the source's thread.
    std::shared_ptr<const WholeSettings> m_whole;  ///< the last ones, or null
    std::shared_ptr<const WholeSettings> m_cached; ///< those in the file, as far as is known, or null
    bool m_hasReadCache = false;
    std::string m_told;

    Mutex m_mutex;
    HeldSettings m_held SENTREL_GUARDED_BY(m_mutex);
    bool m_requestsChanged SENTREL_GUARDED_BY(m_mutex) = false;

    std::thread m_thread; ///< last: it uses all the others
};

} // namespace Sentrel::host
