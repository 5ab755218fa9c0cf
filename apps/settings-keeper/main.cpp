// sentrel-settings-keeper: reads the settings file for the hub, as the daemon's user.
#include "apps/settings-keeper/KeeperService.h"
#include "base/Paths.h"
#include "base/PrintableText.h"
#include "base/ProcessStart.h"
#include "hub/Exceptions.h"
#include "platform/hvbhelpers/BusConnection.h"
#include "platform/hvbhelpers/BusLink.h"
#include "platform/hvbhelpers/EventLoop.h"
#include "platform/hvbhelpers/HubProtocol.h"

#include <CLI/CLI.hpp>
#include <sys/stat.h>
#include <syslog.h>
#include <systemd/sd-daemon.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <clocale>
#include <cstdio>
#include <exception>
#include <string>

namespace {

using Sentrel::keeper::KeeperService;
using Sentrel::keeper::PolicyWatch;
namespace bus = HVB::bus;

enum ExitCode : int { EXIT_DONE = 0, EXIT_FAILED = 1, EXIT_USAGE = 2 };

void tell(int priority, const std::string& line) {
    syslog(priority, "%s", Sentrel::text::printable(line).c_str());
}

/// Keeps the file until SIGTERM or SIGINT.
int keep() {
    constexpr mode_t nothingForOthers = 0027; // the files that SQLite makes beside it take its own mode
    umask(nothingForOthers);
    openlog("sentrel-settings-keeper", LOG_PID | (isatty(STDERR_FILENO) != 0 ? LOG_PERROR : 0), LOG_DAEMON);
    const bus::EventPtr loop = bus::newServiceLoop();
    namespace paths = Sentrel::paths;
    KeeperService service(*loop, paths::settingsFile(), PolicyWatch(paths::agentConfiguration(), paths::agentPolicy()),
                          tell);
    bus::BusLink link(*loop, paths::hubSocket(), {bus::kKeeperName, "sentrel-settings-keeper", "the settings keeper"},
                      {[&](sd_bus& connection) { service.connected(connection); }, [&] { service.lost(); }, tell});
    link.connectSoon();
    tell(LOG_NOTICE, "started");
    sd_notify(0, "READY=1");
    bus::check(sd_event_loop(loop.get()), "the event loop failed");
    sd_notify(0, "STOPPING=1");
    link.end();
    tell(LOG_NOTICE, "ended");
    return EXIT_DONE;
}

} // namespace

int main(int argc, char** argv) {
    Sentrel::beginProcess();
    std::setlocale(LC_CTYPE, "C.UTF-8");
    try {
        CLI::App app("Reads Sentrel's settings file for the hub, and keeps it open. Runs as the daemon's user.",
                     "sentrel-settings-keeper");
        app.set_version_flag("--version", "sentrel-settings-keeper " SENTREL_VERSION);
        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            return app.exit(error) == 0 ? EXIT_DONE : EXIT_USAGE;
        }
        return keep();
    } catch (const HVB::HVBException& error) {
        std::fprintf(stderr, "sentrel-settings-keeper: %s.\n", error.message().c_str());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "sentrel-settings-keeper: %s.\n", error.what());
    }
    return EXIT_FAILED;
}
