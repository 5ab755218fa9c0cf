#include "apps/hvbd/HubCommandLine.h"

#include "base/Paths.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string>
#include <system_error>
#include <vector>

namespace HVB::hub {
namespace {

constexpr std::int64_t kLargestIntervalSeconds = 86'400;
constexpr std::uint64_t kLargestLogMebibytes = 1'048'576;
constexpr std::uint64_t kDefaultLogMebibytes = 64;
constexpr int kBytesPerMebibyteShift = 20;

struct Raw {
    std::int64_t intervalSeconds = 60;
    std::uint64_t logMebibytes = kDefaultLogMebibytes;
    bool printBusConfig = false;
    bus::BusConfigurationOptions bus;
};

void describe(CLI::App& app, Raw& raw, CommandLine& line) {
    app.set_version_flag("--version", "hvbd " SENTREL_VERSION);
    app.add_option("--health-interval", raw.intervalSeconds, "Seconds from one health check of the modules to the next")
        ->check(CLI::Range(std::int64_t{1}, kLargestIntervalSeconds))
        ->capture_default_str();
    app.add_option("--silence-marks", line.silenceMarks,
                   "Directory for a file module-N when module N has missed three health checks in a row")
        ->type_name("DIRECTORY")
        ->check(CLI::ExistingDirectory);
    app.add_option("--log-limit-mib", raw.logMebibytes, "Most that the stored records may take, in MiB; the oldest go")
        ->check(CLI::Range(std::uint64_t{1}, kLargestLogMebibytes))
        ->capture_default_str();
    app.add_flag("--log-to-stderr", line.logToStderr, "Write what goes to the system log to standard error as well");
    CLI::Option* print =
        app.add_flag("--print-bus-config", raw.printBusConfig, "Print the configuration of the hub's bus and exit");
    CLI::Option* daemonUser =
        app.add_option("--daemon-user", raw.bus.daemonUser, "The user whom sentreld runs as")->needs(print);
    CLI::Option* hubUser = app.add_option("--hub-user", raw.bus.hubUser, "The user whom hvbd runs as")->needs(print);
    app.add_option("--admin-group", raw.bus.adminGroup, "The group whose members may send every command")->needs(print);
    print->needs(daemonUser)->needs(hubUser);
    app.footer("Example: hvbd --print-bus-config --daemon-user sentrel --hub-user hvb --admin-group sentrel-admin");
}

bool isNumber(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

/// Looks a user or a group up by name. @return 0 when it exists, ENOENT when it does not, else what failed.
template <class Entry, class Lookup>
int lookUp(const std::string& name, Lookup lookup) {
    constexpr std::size_t firstSize = 1024;
    std::vector<char> buffer(firstSize);
    for (;;) {
        Entry entry{};
        Entry* found = nullptr;
        const int error = lookup(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
        if (error == ERANGE) {
            buffer.resize(buffer.size() * 2);
            continue;
        }
        return found != nullptr ? 0 : error != 0 ? error : ENOENT;
    }
}

/// Says on standard error why a name cannot be used.
bool complain(const char* kind, const std::string& name, int error, const char* howToMake) {
    if (error == ENOENT) {
        fmt::print(stderr,
                   "hvbd: there is no {} \"{}\" here, and the bus would pass over every rule for it. Make it "
                   "({} {}) or name another.\n",
                   kind, name, howToMake, name);
    } else {
        fmt::print(stderr, "hvbd: cannot look up the {} \"{}\": {}.\n", kind, name,
                   std::system_category().message(error));
    }
    return false;
}

bool userExists(const std::string& name) {
    // The bus takes a number as it is.
    const int error = isNumber(name) ? 0 : lookUp<passwd>(name, getpwnam_r);
    return error == 0 || complain("user", name, error, "adduser --system");
}

bool groupExists(const std::string& name) {
    const int error = name.empty() ? 0 : lookUp<group>(name, getgrnam_r);
    return error == 0 || complain("group", name, error, "addgroup --system");
}

} // namespace

CommandLine parseCommandLine(int argc, const char* const* argv) {
    CommandLine line;
    Raw raw;
    CLI::App app("The hub of Sentrel: stores log records, checks the modules' health and writes their log lines.",
                 "hvbd");
    describe(app, raw, line);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const int code = app.exit(error);
        line.exitCode = code == 0 ? EXIT_DONE : EXIT_USAGE;
        return line;
    }
    line.healthInterval = std::chrono::seconds(raw.intervalSeconds);
    line.logLimitBytes = raw.logMebibytes << kBytesPerMebibyteShift;
    if (raw.printBusConfig) {
        raw.bus.socketPath = Sentrel::paths::hubSocket();
        line.printBusConfiguration = raw.bus;
    }
    return line;
}

int printBusConfiguration(const bus::BusConfigurationOptions& options) {
    // All three are checked, so that one run reports everything that is missing.
    const bool daemonUser = userExists(options.daemonUser);
    const bool hubUser = userExists(options.hubUser);
    const bool adminGroup = groupExists(options.adminGroup);
    if (!daemonUser || !hubUser || !adminGroup) {
        return EXIT_FAILED;
    }
    const std::string text = bus::busConfiguration(options);
    const bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
    if (!written) {
        fmt::print(stderr, "hvbd: cannot write the configuration: {}.\n", std::system_category().message(errno));
    }
    return written ? EXIT_DONE : EXIT_FAILED;
}

} // namespace HVB::hub
