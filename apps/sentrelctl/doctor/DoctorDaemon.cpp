// What sentreld leaves behind: its event socket and its PID file, and whether one process has all that is sentreld's.
//
// A second sentreld may start beside the first. It takes everything: event socket, PID file, the hub's name. The older
// one goes on without, and takes the PID file away when it ends. So what the PID file says is compared with who
// listens, before anything is advised: "start sentreld" beside one that runs would make a second.
//
// What must stay so:
// - The event socket is opened, and closed without a message. The daemon reports nothing for that, but it closes its
// end
//   too when it comes to read: so a client that holds the socket is found without harm.
// - Who listens is what the socket says of its listener, also when that does not move.
#include "apps/sentrelctl/Session.h"
#include "apps/sentrelctl/clients/EventSocket.h"
#include "apps/sentrelctl/clients/HubClient.h"
#include "apps/sentrelctl/doctor/DoctorProcesses.h"
#include "apps/sentrelctl/doctor/DoctorSockets.h"
#include "apps/sentrelctl/terminal/Failure.h"
#include "base/Paths.h"
#include "hub/HubIds.h"
#include "platform/hvbhelpers/HubProtocol.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <fmt/format.h>
#include <fmt/ranges.h>

namespace Sentrel::ctl {
namespace {

/// Who holds the event socket, as the first half of a sentence.
std::string holderOf(const std::string& path) {
    const TakenClients clients = takenClients(path);
    if (!clients.processes.empty()) {
        std::vector<std::string> names;
        std::transform(clients.processes.begin(), clients.processes.end(), std::back_inserter(names), processText);
        return fmt::format("held by the process {}", fmt::join(names, ", "));
    }
    return clients.count > 0 ? "held by a client that this user cannot see"
                             : "no client holds it, so it may hang, or have much to do";
}

Diagnosis eventSocketAnswer(const std::string& path, double timeout) {
    try {
        EventSocket socket(path, deadlineAfter(timeout));
        socket.endSending();
        socket.waitForClose();
        return healthy("sentreld listens at " + path);
    } catch (const Failure& failure) {
        return failure.code() == ExitCode::TimedOut
                   ? failed("event-socket-held",
                            fmt::format("sentreld has not read from {} for {} s: {}", path, timeout, holderOf(path)),
                            "It serves one client at a time, for as long as that one stays: end that process, or "
                            "restart sentreld")
                   : failed("event-socket-unheard", fmt::format("nobody listens at {}: {}", path, failure.why()),
                            "Start sentreld");
    }
}

/// The number in the PID file; none when there is no such.
std::optional<pid_t> pidIn(const std::string& path) {
    const std::string text = firstLineOf(path);
    pid_t pid = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), pid);
    return error == std::errc() && end == text.data() + text.size() && pid > 0 ? std::optional(pid) : std::nullopt;
}

bool hasEnded(pid_t pid) {
    return ::kill(pid, 0) != 0 && errno == ESRCH;
}

/// Who has module 7's name on the bus. None when nobody has, or the bus does not tell this user.
std::optional<pid_t> ownerOfName(double timeout) {
    try {
        return HubClient(paths::hubSocket(), timeout).processOf(HVB::bus::moduleName(HVB::MODULE_SENTREL));
    } catch (const HVB::HVBException&) {
        return std::nullopt;
    }
}

/// What to do about a PID file that is wrong, and how the sentence about it goes on.
struct PidFileMatter {
    std::string beside; ///< empty when no sentreld runs
    std::string advice;
};

PidFileMatter pidFileMatter(double timeout) {
    std::optional<pid_t> running = listenerOfEvents(timeout);
    if (!running) {
        running = ownerOfName(timeout);
    }
    return running ? PidFileMatter{fmt::format(", while sentreld runs as the process {}", *running),
                                   "Restart sentreld, which writes the file; until then do not start another"}
                   : PidFileMatter{"", "Start sentreld"};
}

Diagnosis missingPidFile(const std::string& path, double timeout) {
    const PidFileMatter matter = pidFileMatter(timeout);
    return matter.beside.empty()
               ? failed("pid-file-missing", fmt::format("there is no {}: sentreld does not run", path), matter.advice)
               : warning(
                     "pid-file-gone",
                     fmt::format("there is no {}{}: another sentreld that has ended took it away", path, matter.beside),
                     matter.advice);
}

/// A part of what is sentreld's, and who has it.
struct Holding {
    const char* what;
    pid_t process;
};

std::vector<Holding> holdings(double timeout) {
    std::vector<Holding> all;
    const std::optional<pid_t> written = pidIn(paths::pidFile());
    if (written && !hasEnded(*written)) { // 'pid-file' tells of one that has ended
        all.push_back({"the PID file", *written});
    }
    if (const std::optional<pid_t> listener = listenerOfEvents(timeout)) {
        all.push_back({"the event socket", *listener});
    }
    if (const std::optional<pid_t> owner = ownerOfName(timeout)) {
        all.push_back({"the hub's name Module7", *owner});
    }
    return all;
}

/// The daemons that still have a socket from which another took the path. Root alone sees them.
std::vector<pid_t> daemonsBeside(pid_t newest) {
    std::vector<pid_t> all = listeningProcesses(paths::eventSocket(), "sentreld");
    all.erase(std::remove(all.begin(), all.end(), newest), all.end());
    return all;
}

} // namespace

std::optional<pid_t> listenerOfEvents(double timeout) {
    try {
        return EventSocket(paths::eventSocket(), deadlineAfter(timeout)).listener();
    } catch (const Failure&) {
        return std::nullopt;
    }
}

Diagnosis eventSocket(double timeout) {
    constexpr mode_t everybody = S_IRWXU | S_IRWXG | S_IRWXO;
    const std::string path = paths::eventSocket();
    const std::optional<struct stat> facts = factsOf(path);
    if (!facts) {
        return failed("event-socket-missing", "there is no " + path, "Start sentreld, which makes it");
    }
    if (!S_ISSOCK(facts->st_mode)) {
        return failed("event-socket-no-socket", path + " is no socket",
                      "Find out who put it there, remove it, and start sentreld");
    }
    if ((facts->st_mode & everybody) != everybody) {
        return failed("event-socket-closed",
                      fmt::format("browsers of other users cannot report to {}: it has {}", path, modeText(*facts)),
                      "chmod 0777 " + path + ", or restart sentreld");
    }
    return eventSocketAnswer(path, timeout);
}

Diagnosis pidFile(double timeout) {
    const std::string path = paths::pidFile();
    if (!factsOf(path)) {
        return missingPidFile(path, timeout);
    }
    needReadable(path);
    const std::optional<pid_t> pid = pidIn(path);
    if (!pid) {
        const PidFileMatter matter = pidFileMatter(timeout);
        return failed("pid-file-garbled", fmt::format("{} holds no process id{}", path, matter.beside), matter.advice);
    }
    if (hasEnded(*pid)) {
        const PidFileMatter matter = pidFileMatter(timeout);
        return failed(
            "pid-file-stale",
            fmt::format("{} names the process {}, which has ended without a clean stop{}", path, *pid, matter.beside),
            matter.advice);
    }
    const std::string command = commandOf(*pid);
    if (!command.empty() && !command.starts_with("sentreld")) {
        const PidFileMatter matter = pidFileMatter(timeout);
        return failed(
            "pid-file-other",
            fmt::format("{} names the process {}, which is {} and not sentreld{}", path, *pid, command, matter.beside),
            matter.advice);
    }
    return healthy(fmt::format("sentreld is the process {}", *pid));
}

Diagnosis oneDaemon(double timeout) {
    const std::vector<Holding> all = holdings(timeout);
    constexpr std::size_t fewest = 2;
    if (all.size() < fewest) {
        throw CannotSee(
            "there is nothing to compare: of PID file, event socket and hub's name one at the most is seen");
    }
    std::vector<std::string> parts;
    std::transform(all.begin(), all.end(), std::back_inserter(parts), [](const Holding& each) {
        return fmt::format("{} is that of {}", each.what, processText(each.process));
    });
    if (std::any_of(all.begin(), all.end(), [&](const Holding& each) { return each.process != all.front().process; })) {
        return failed("two-daemons", fmt::format("{}", fmt::join(parts, ", ")),
                      "A sentreld that has just been started takes all of these: look again. Otherwise end all of "
                      "these that are sentreld, and start it once");
    }
    std::vector<const char*> names;
    std::transform(all.begin(), all.end(), std::back_inserter(names), [](const Holding& each) { return each.what; });
    const std::string what = fmt::format("{} are those of the process {}", fmt::join(names, ", "), all.front().process);
    const std::vector<pid_t> older = daemonsBeside(all.front().process);
    if (!older.empty()) {
        return warning(
            "older-daemon",
            fmt::format("{}; an older sentreld runs on without them as the process {}", what, fmt::join(older, ", ")),
            "End the older one, then restart sentreld: the PID file goes with the older one");
    }
    return healthy(what);
}

} // namespace Sentrel::ctl
