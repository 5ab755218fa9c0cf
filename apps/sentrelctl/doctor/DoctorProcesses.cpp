// The doctor's checks of the bus, of the processes on it, and of what they leave behind.
//
// The checks depend on each other: without the bus nothing on it can be asked. The cause is reported once, by the check
// whose subject it is. The others say that they cannot see (needTheBus), so that one fault does not look like five.
//
// What must stay so:
// - Whether the bus enforces its policy is found out by trying, as an ordinary user, what such a user may not do: a
// file
//   that looks right proves nothing about the bus that runs. Root tries it as nobody, in a child. A user with rights of
//   its own, an administrator among them, cannot try it.
// - What is tried does no harm where it is allowed: a question about health, and an event that no module sends or
//   hears. The event is needed when hvbd is away, since the question then reaches nobody.
// - The host's own name is looked up because the reporter does so for every event. A slow name service holds up all
//   events.
// - Each question gets the whole timeout for itself, so a check with several questions multiplies it.
#include "apps/sentrelctl/doctor/DoctorProcesses.h"
#include "apps/sentrelctl/Session.h"
#include "apps/sentrelctl/clients/HubClient.h"
#include "apps/sentrelctl/terminal/Failure.h"
#include "base/FileReading.h"
#include "base/Paths.h"
#include "hub/HubIds.h"
#include "platform/hvbhelpers/HubProtocol.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <fmt/format.h>
#include <grp.h>
#include <netdb.h>
#include <optional>
#include <system_error>
#include <unistd.h>

namespace Sentrel::ctl {
namespace {

constexpr uid_t kNobody = 65534;
constexpr int kEventOfNobody = 0; // no module sends it and none subscribes to it

Diagnosis hostName(double timeout) {
    std::array<char, 256> name{};
    if (::gethostname(name.data(), name.size() - 1) != 0) {
        throw CannotSee("the host does not tell its name");
    }
    return hostNameDiagnosis(name.data(), inChild(std::nullopt, timeout,
                                                  [&name] { return ::gethostbyname(name.data()) != nullptr ? 0 : 1; }));
}

// The bus.

std::string startOfTheBus() {
    const std::string configuration = busConfigurationFile();
    return configuration == paths::packagedBusConfiguration()
               ? "Start the hub's bus: systemctl start sentrel.target"
               : fmt::format("Start the hub's bus: dbus-daemon --nofork --config-file={}", configuration);
}

Diagnosis hubSocket(double timeout) {
    const std::string path = paths::hubSocket();
    const std::optional<struct stat> facts = factsOf(path);
    if (!facts) {
        return failed("bus-socket-missing", "there is no " + path, startOfTheBus());
    }
    if (!S_ISSOCK(facts->st_mode)) {
        return failed("bus-socket-no-socket", path + " is no socket",
                      "Find out who put it there, remove it, and start the hub's bus");
    }
    try {
        HubClient(path, timeout).pingBus();
    } catch (const HVB::HVBException& error) {
        switch (exitCodeOfHub(error.code())) {
        case ExitCode::NotRunning:
            return failed("bus-absent", "nobody listens at " + path, startOfTheBus());
        case ExitCode::TimedOut:
            return failed("bus-silent", "the bus does not answer at " + path,
                          "Look at its dbus-daemon, and restart it");
        default:
            return failed("bus-refuses", error.message(),
                          "Look at 'bus-configuration' above, and at the bus's own messages");
        }
    }
    return healthy("the bus answers at " + path);
}

/// Whether hvbd got the question. Without hvbd on the bus nobody gets it, and the bus does not say what it would do.
bool letsAsk(double timeout) {
    try {
        HubClient(paths::hubSocket(), timeout).moduleHealth();
        return true;
    } catch (const HVB::HVBException&) {
        return false;
    }
}

/// Tries what an ordinary user may not do, and what does no harm where the user may.
int probePolicy(double timeout) {
    try {
        if (letsAsk(timeout)) {
            return PolicyLetsAsk;
        }
        const HVB::EventData event(kEventOfNobody);
        return HubClient(paths::hubSocket(), timeout).publish(event) ? PolicyLetsSignal : PolicyRefuses;
    } catch (const HVB::HVBException&) {
        return PolicyUnreachable;
    }
}

/// The group whose members have rights of their own on the bus; empty when the configuration cannot be read.
std::string administratorsGroup() {
    try {
        return administratorsIn(
            readRegularFile(busConfigurationFile(), kMaxBusConfigurationBytes, FileAccess::Anybody));
    } catch (const std::system_error&) {
        return {}; // 'bus-configuration' tells why
    }
}

/// Whether this process is in the group of this name.
bool isMemberOf(const std::string& name) {
    const group* const entry = name.empty() ? nullptr : ::getgrnam(name.c_str());
    return entry != nullptr && (entry->gr_gid == ::getegid() || ::group_member(entry->gr_gid) != 0);
}

/// Root asks as a user who is nobody's. Everybody else asks as themselves, unless they have rights of their own.
Diagnosis busPolicy(double timeout) {
    constexpr double attempts = 3; // to connect twice, and to be answered
    needTheBus(timeout);
    const uid_t self = ::geteuid();
    const std::optional<struct stat> hub = factsOf(paths::hubVarDirectory());
    if (self != 0 && (self == daemonUser() || (hub && self == hub->st_uid) || isMemberOf(administratorsGroup()))) {
        throw CannotSee("this user has rights of its own on the bus: ask as root or as an ordinary user");
    }
    const std::optional<uid_t> asker = self == 0 ? std::optional(kNobody) : std::nullopt;
    return busPolicyDiagnosis(inChild(asker, attempts * timeout, [timeout] { return probePolicy(timeout); }));
}

// The processes.

struct PeerFindings {
    FindingId absent;
    FindingId silent;
};

/// Asks a process on the bus whether it is there.
Diagnosis peerDiagnosis(const PeerFindings& findings, const char* process, const std::string& name,
                        const std::string& path, double timeout) {
    needTheBus(timeout);
    try {
        HubClient(paths::hubSocket(), timeout).ping(name, path);
        return healthy(fmt::format("{} answers as {}", process, name));
    } catch (const HVB::HVBException& error) {
        return exitCodeOfHub(error.code()) == ExitCode::NotRunning
                   ? failed(findings.absent, fmt::format("{} is not on the bus", process),
                            fmt::format("Start {}; its messages are in the system log", process))
                   : failed(findings.silent, fmt::format("{} does not answer: {}", process, error.message()),
                            fmt::format("Restart {}", process));
    }
}

Diagnosis moduleHealth(double timeout) {
    needTheBus(timeout);
    std::optional<ModuleHealth> daemon;
    try {
        daemon = HubClient(paths::hubSocket(), timeout).daemonHealth();
    } catch (const HVB::HVBException& error) {
        throw CannotSee(error.code() == -EACCES
                            ? "cannot be seen as this user: hvbd tells it to root and the administrators"
                            : "hvbd does not tell");
    }
    if (daemon && !daemon->configurationProblem.empty()) {
        return failed("health-configuration",
                      fmt::format("hvbd finds that sentreld cannot use {}: {}", paths::moduleConfiguration(),
                                  daemon->configurationProblem),
                      "Mend that file: 'module-configuration' above looks at it too");
    }
    if (!daemon || daemon->state == HVB::bus::kStateUnknown) {
        throw CannotSee("hvbd has not seen sentreld yet");
    }
    if (daemon->state != "well") {
        return failed("health-not-well", fmt::format("hvbd found sentreld {} at {}", daemon->state, daemon->since),
                      "Restart sentreld, unless it has just been started");
    }
    return healthy(fmt::format("hvbd finds sentreld well since {}", daemon->since));
}

} // namespace

void needTheBus(double timeout) {
    try {
        HubClient(paths::hubSocket(), timeout).pingBus();
    } catch (const HVB::HVBException&) {
        throw CannotSee("the bus cannot be reached");
    }
}

Diagnosis hvbd(double timeout) {
    return peerDiagnosis({"hvbd-absent", "hvbd-silent"}, "hvbd", HVB::bus::kHubName, HVB::bus::kHubPath, timeout);
}

Diagnosis sentreld(double timeout) {
    return peerDiagnosis({"sentreld-absent", "sentreld-silent"}, "sentreld", HVB::bus::moduleName(HVB::MODULE_SENTREL),
                         HVB::bus::modulePath(HVB::MODULE_SENTREL), timeout);
}

bool isOk(Diagnosis (*check)(double), double timeout) {
    try {
        return check(timeout).verdict == Verdict::Ok;
    } catch (const CannotSee&) {
        return false;
    }
}

Diagnosis hostNameDiagnosis(const std::string& name, std::optional<int> answer) {
    constexpr const char* advice = "Put the name into /etc/hosts, or install libnss-myhostname";
    if (!answer) {
        return {Verdict::Warning, "host-name-silent",
                fmt::format("nobody answers for the host's own name {}: every browser event waits for that", name),
                advice};
    }
    if (*answer != 0) {
        return {Verdict::Warning, "host-name-unresolved",
                fmt::format("the host's own name {} does not resolve: reports lack the address", name), advice};
    }
    return healthy(fmt::format("the host's own name {} resolves", name));
}

Diagnosis busPolicyDiagnosis(std::optional<int> answer) {
    constexpr const char* advice =
        "Another configuration is in force: make it with 'hvbd --print-bus-config', and restart the bus and all on it";
    if (!answer) {
        throw CannotSee("the bus did not answer an ordinary user in time");
    }
    switch (*answer) {
    case PolicyRefuses:
        return healthy("the bus refuses an ordinary user what it should");
    case PolicyLetsAsk:
        return failed("bus-policy-asks", "the bus lets an ordinary user ask for the health", advice);
    case PolicyLetsSignal:
        return failed("bus-policy-signals", "the bus lets an ordinary user send events", advice);
    default:
        return failed("bus-policy-unreachable", "an ordinary user cannot connect to the bus",
                      "See that every user can reach " + paths::hubSocket());
    }
}

const std::vector<Check>& processChecks() {
    static const std::vector<Check> all{
        {"host-name", hostName},
        {"hub-socket", hubSocket},
        {"bus-policy", busPolicy},
        {"hvbd", hvbd},
        {"log-store", logStore},
        {"log-content", logContent},
        {"request-store", requestStore},
        {"rating-lists", ratingLists},
        {"sentreld", sentreld},
        {"health", moduleHealth},
        {"broker", broker},
        {"event-socket", eventSocket},
        {"pid-file", pidFile},
        {"one-daemon", oneDaemon},
    };
    return all;
}

} // namespace Sentrel::ctl
