// hvbd from its first line in the log to its last: the parts are made in the order in which they may use each other,
// and go in the opposite one.
//
// The loop on the main thread serves the bus, the store and the health rounds. The broker beside it has threads of its
// own, which call the reload command. A bus that is missing at the start ends hvbd, with advice on standard error; one
// that goes away later is waited for.
#include "apps/hvbd/HubProcess.h"

#include "apps/hvbd/AccessBook.h"
#include "apps/hvbd/AccessService.h"
#include "apps/hvbd/CallbackGuard.h"
#include "apps/hvbd/HealthMonitor.h"
#include "apps/hvbd/HubService.h"
#include "apps/hvbd/ListWorker.h"
#include "apps/hvbd/LogStore.h"
#include "apps/hvbd/ModuleConfiguration.h"
#include "apps/hvbd/ReloadCommand.h"
#include "apps/hvbd/SystemLog.h"
#include "base/Paths.h"
#include "hub/HVBCommBroker.h"
#include "platform/hvbhelpers/BusLink.h"
#include "platform/hvbhelpers/EventLoop.h"
#include "platform/hvbhelpers/HubProtocol.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>

#include <cerrno>

namespace HVB::hub {
namespace {

/// Everything that lives as long as the process, in the order in which it may be destroyed.
/// Threads: the loop's; what the broker's threads use says so itself. Owner: runHub.
class Hub {
public:
    explicit Hub(const CommandLine& line)
        : m_log(line.logToStderr ? SystemLog::Echo::StandardError : SystemLog::Echo::None),
          m_loop(bus::newServiceLoop()),
          m_configurations({{MODULE_SENTREL, Sentrel::paths::moduleConfiguration()}},
                           [this](int priority, const std::string& text) { m_log.write(priority, text); }),
          m_store(Sentrel::paths::hubLogStore(), line.logLimitBytes), m_marks(line.silenceMarks, m_log),
          m_monitor(*m_loop, line.healthInterval, m_log, m_marks, [this] { m_configurations.lookAtAll(); }),
          m_settings(m_log), m_service(*m_loop, m_store, m_configurations, m_monitor, m_settings, m_log),
          m_book(Sentrel::paths::hubRequestStore()), m_worker(*m_loop, Sentrel::paths::hubSocket(), m_log),
          m_access(*m_loop, m_book, m_worker, m_log),
          m_link(*m_loop, Sentrel::paths::hubSocket(), {bus::kHubName, "hvbd", "the hub"}, linkUsers()),
          m_broker(*HVBCommBroker::getInstance(Sentrel::paths::hubSocket())),
          m_reload(m_broker, m_configurations, m_log) {}

    ~Hub() { HVBCommBroker::releaseInstance(); }
    Hub(const Hub&) = delete;
    Hub& operator=(const Hub&) = delete;

    void start() {
        m_service.openStore();
        readConfigurations();
        m_link.connect();
        m_broker.setHVId(MODULE_HUB);
        m_broker.setCommandInterface(&m_reload);
        m_broker.start(true);
        m_hangups = bus::receiveHangups(*m_loop, onHangup, this);
    }

    int serve() {
        m_log.write(LOG_NOTICE, "started");
        sd_notify(0, "READY=1");
        const int result = sd_event_loop(m_loop.get());
        bus::check(result, "the event loop failed");
        sd_notify(0, "STOPPING=1");
        m_link.end();
        m_log.write(LOG_NOTICE, "ended");
        return EXIT_DONE;
    }

private:
    static int onHangup(sd_event_source* /*source*/, const signalfd_siginfo* /*signal*/, void* self) {
        auto& hub = *static_cast<Hub*>(self);
        return logAndIgnore(hub.m_log, "reading the configurations again", [&hub] { hub.m_reload.reloadAll(); });
    }

    bus::BusLink::Users linkUsers() {
        return {[this](sd_bus& bus) {
                    m_service.connected(bus);
                    m_monitor.connected(bus);
                    m_access.connected(bus);
                },
                [this] {
                    m_access.lost();
                    m_monitor.lost();
                    m_service.lost();
                },
                [this](int priority, const std::string& line) { m_log.write(priority, line); }};
    }

    void readConfigurations() {
        try {
            const ModuleConfiguration configuration = m_configurations.reload(MODULE_SENTREL);
            if (configuration.noLevel) {
                m_log.write(LOG_WARNING, fmt::format("configuration of module {}: {}", static_cast<int>(MODULE_SENTREL),
                                                     configuration.description()));
            }
        } catch (const ConfigurationError&) {
            // The log has it already, and the defaults hold.
        }
    }

    SystemLog m_log;
    EventPtr m_loop;
    ModuleConfigurations m_configurations;
    LogStore m_store;
    SilenceMarks m_marks;
    HealthMonitor m_monitor;
    SettingsService m_settings;
    HubService m_service;
    AccessBook m_book;
    ListWorker m_worker;
    AccessService m_access;
    bus::BusLink m_link;
    HVBCommBroker& m_broker;
    ReloadCommand m_reload;
    SourcePtr m_hangups;
};

struct Advice {
    ExitCode exitCode;
    const char* nextStep;
};

Advice adviceFor(int error) {
    switch (error) {
    case EACCES:
    case EPERM:
        return {EXIT_NO_ACCESS,
                "Run it as the user that the bus's configuration names (hvbd --print-bus-config makes one)."};
    case EEXIST:
        return {EXIT_FAILED, "End that one first."};
    case ENOENT:
    case ECONNREFUSED:
    case ECONNRESET:
    case ETIMEDOUT:
        return {EXIT_NOT_RUNNING, "Start the hub's bus first."};
    default:
        return {EXIT_FAILED, "The system log may tell more."};
    }
}

int tell(const HVBException& error) {
    const Advice advice = adviceFor(-error.code());
    fmt::print(stderr, "hvbd: {}. {}\n", error.message(), advice.nextStep);
    return advice.exitCode;
}

} // namespace

int runHub(const CommandLine& line) {
    constexpr mode_t nothingForOthers = 0027;
    umask(nothingForOthers);
    Hub hub(line);
    try {
        hub.start();
    } catch (const HVBException& error) {
        return tell(error);
    }
    return hub.serve();
}

} // namespace HVB::hub
