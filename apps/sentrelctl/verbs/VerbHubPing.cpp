// sentrelctl hub ping: who on the way to the daemon answers, and how fast.
//
// It asks in the order of the way: the bus, hvbd, sentreld. When the bus cannot be reached, the other two are "unknown"
// and not "not running", since nobody could have asked them.
//
// What must stay so:
// - Each peer is asked on a connection of its own: after a peer that did not answer, a connection is of no more use.
// - All rows are shown before the verb fails, and the exit code is the worst of the answers.
// - A ping tells that the process reads its connection. The bus library answers it, so it does not tell that a command
//   would succeed. So hvbd is asked besides whether sentreld can use its configuration, without which it refuses
//   commands; hvbd does not tell that to every user.
#include "apps/sentrelctl/Verbs.h"
#include "apps/sentrelctl/clients/HubClient.h"
#include "apps/sentrelctl/terminal/Failure.h"
#include "base/Paths.h"
#include "base/PrintableText.h"
#include "hub/HubIds.h"
#include "platform/hvbhelpers/HubProtocol.h"

#include <array>
#include <fmt/format.h>
#include <memory>
#include <optional>
#include <vector>

namespace Sentrel::ctl {

using Sentrel::text::printable;
using Sentrel::text::validUtf8;
namespace {

constexpr const char* kHubPingExample = "  sentrelctl hub ping";

struct HubPingOptions {
    double timeout = kDefaultTimeout;
};

using Question = std::chrono::microseconds (*)(HubClient&);

/// One who is asked.
struct Peer {
    const char* name;
    const char* process; ///< what to start when it is missing
    std::string busName;
    Question ping;
};

/// What one peer did when it was asked.
struct Answer {
    const Peer& peer;
    std::optional<std::chrono::microseconds> time;
    ExitCode code;
    const char* state;
    std::string error;
    std::string problem; ///< why it cannot use its configuration; empty when it can, or nobody knows
};

const std::vector<Peer>& peers() {
    using HVB::bus::kHubName;
    using HVB::bus::kHubPath;
    static const std::string module = HVB::bus::moduleName(HVB::MODULE_SENTREL);
    static const std::vector<Peer> all{
        {"bus", "the hub's dbus-daemon", "org.freedesktop.DBus", [](HubClient& hub) { return hub.pingBus(); }},
        {"hvbd", "hvbd", kHubName, [](HubClient& hub) { return hub.ping(kHubName, kHubPath); }},
        {"sentreld", "sentreld", module,
         [](HubClient& hub) { return hub.ping(module, HVB::bus::modulePath(HVB::MODULE_SENTREL)); }},
    };
    return all;
}

const char* stateWord(ExitCode code) {
    switch (code) {
    case ExitCode::NotRunning:
        return "not running";
    case ExitCode::TimedOut:
        return "no answer";
    case ExitCode::NoAccess:
        return "no access";
    default:
        return "failed";
    }
}

/// Asks on a connection of its own: one that met a peer that does not answer is of no more use.
Answer ask(const Peer& peer, double timeout) {
    try {
        HubClient hub(paths::hubSocket(), timeout);
        return {peer, peer.ping(hub), ExitCode::Done, "running", "", ""};
    } catch (const HVB::HVBException& error) {
        const ExitCode code = exitCodeOfHub(error.code());
        return {peer, std::nullopt, code, stateWord(code), error.message(), ""};
    }
}

/// Without the bus nothing is known of those behind it.
std::vector<Answer> askAll(double timeout) {
    std::vector<Answer> answers;
    for (const Peer& peer : peers()) {
        const bool isReachable = answers.empty() || answers.front().time.has_value();
        answers.push_back(
            isReachable ? ask(peer, timeout)
                        : Answer{peer, std::nullopt, answers.front().code, "unknown", "the bus cannot be reached", ""});
    }
    return answers;
}

/// What hvbd, when it answers, knows against the configuration of sentreld.
std::string configurationProblem(double timeout) {
    try {
        const std::optional<ModuleHealth> daemon = HubClient(paths::hubSocket(), timeout).daemonHealth();
        return daemon ? daemon->configurationProblem : "";
    } catch (const HVB::HVBException&) {
        return {}; // this user may not ask, or hvbd went away meanwhile
    }
}

std::string problemText(const Answer& answer) {
    return fmt::format("it cannot use {}: {}", paths::moduleConfiguration(), printable(answer.problem));
}

std::string answerText(const Answer& answer, const Palette& palette) {
    constexpr double microsecondsPerMillisecond = 1000;
    std::string state =
        answer.time ? fmt::format("{:.3f} ms", static_cast<double>(answer.time->count()) / microsecondsPerMillisecond)
                    : fmt::format("{}{}{}: {}", palette.alarm, answer.state, palette.plain, printable(answer.error));
    if (!answer.problem.empty()) {
        state += fmt::format("; {}{}{}", palette.alarm, problemText(answer), palette.plain);
    }
    return fmt::format("{:<9} {:<25} {}\n", answer.peer.name, answer.peer.busName, state);
}

Json answerJson(const Answer& answer) {
    return Json{{"peer", answer.peer.name},
                {"name", answer.peer.busName},
                {"ok", answer.time.has_value()},
                {"time_us", answer.time ? Json(answer.time->count()) : Json(nullptr)},
                {"state", answer.state},
                {"error", answer.time ? Json(nullptr) : Json(validUtf8(answer.error))},
                {"problem", answer.problem.empty() ? Json(nullptr) : Json(validUtf8(answer.problem))}};
}

Failure failureOf(const Answer& answer) {
    const std::string entry = answer.code == ExitCode::NoAccess ? missingEntry() : "";
    return {answer.code, "not everybody answers", answer.peer.name, entry.empty() ? answer.state : entry,
            answer.code == ExitCode::NotRunning ? fmt::format("Start {}, then try again", answer.peer.process) : ""};
}

/// Returns the worst of the answers: "not running" counts as worse than "does not answer".
void failUnlessAllAreFine(const std::vector<Answer>& answers) {
    for (const ExitCode code : {ExitCode::NotRunning, ExitCode::TimedOut, ExitCode::NoAccess, ExitCode::Failed}) {
        for (const Answer& answer : answers) {
            if (answer.code == code) {
                throw failureOf(answer);
            }
        }
    }
    for (const Answer& answer : answers) {
        if (!answer.problem.empty()) {
            throw Failure(ExitCode::Failed, "not everybody can work", answer.peer.name, problemText(answer),
                          "Mend that file, then try again");
        }
    }
}

void hubPing(Session& session, const HubPingOptions& options) {
    std::vector<Answer> answers = askAll(options.timeout);
    const Answer& hvbd = answers.at(1);
    if (hvbd.code == ExitCode::Done) {
        answers.back().problem = configurationProblem(options.timeout);
    }
    if (session.json == JsonMode::Off) {
        for (const Answer& answer : answers) {
            session.out.write(answerText(answer, session.palette));
        }
    } else {
        Json list = Json::array();
        for (const Answer& answer : answers) {
            list.push_back(answerJson(answer));
        }
        session.out.write(jsonText(list, session.json));
    }
    failUnlessAllAreFine(answers);
}

Work describePing(OptionSet& set, Session& session) {
    const auto options = std::make_shared<HubPingOptions>();
    set.addTimeout(options->timeout);
    return [options, &session] { hubPing(session, *options); };
}

} // namespace

Verbs hubVerbs() {
    static constexpr std::array<Verb, 1> verbs{{
        {"hub", "ping", "Asks the bus, hvbd and sentreld for an answer and shows how long each took.", kHubPingExample,
         describePing},
    }};
    return verbs;
}

} // namespace Sentrel::ctl
