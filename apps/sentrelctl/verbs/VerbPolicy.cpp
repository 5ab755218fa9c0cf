// sentrelctl policy check and policy push: what a policy would do, and how it gets to the broker.
//
// A push begins with the same check: the message gets the audience that it lacks and is signed first, then read and
// checked as the machines will, so that what is checked is byte for byte what is sent. What they would refuse, or could
// not put into force as a whole, is not sent without --force. Nor is a list with a gap, which they would put into force
// as nobody meant it.
//
// What must stay so:
// - --wait subscribes to the statement before it publishes, so that a fast answer is not missed. A retained one is what
//   was there before. Only one that is published now, and that speaks of this very document, counts.
// - --wait is for one machine. A group has no known number of members, so there is no last answer.
// - A file may be larger than a machine takes, up to twice the size. The check then gives the machine's own reason, and
//   not an error about reading.
// - A result "not in force" is a failure of the verb, although the push itself went well.
#include "apps/sentrelctl/Verbs.h"
#include "apps/sentrelctl/fleet/FleetOptions.h"
#include "apps/sentrelctl/fleet/StatementText.h"
#include "apps/sentrelctl/policy/PolicyAddress.h"
#include "apps/sentrelctl/policy/PolicyReport.h"
#include "apps/sentrelctl/terminal/Failure.h"
#include "apps/sentrelctl/terminal/Input.h"
#include "base/PrintableText.h"
#include "platform/hvbagent/Fleet.h"
#include "platform/hvbagent/SiteKeys.h"

#include <array>
#include <fmt/format.h>
#include <memory>

namespace Sentrel::ctl {
namespace {

namespace agent = HVBEnterprise::agent;

// More than a machine takes, so that the check gives the machine's own reason.
constexpr std::size_t kMaxRead = 2 * agent::kMaxPolicyMessageBytes;
constexpr double kPushTimeout = 30;

constexpr const char* kAllowGaps = "--allow-gaps";
constexpr const char* kAllowGapsHelp = "Let a policy through in which a site is missing and its action is not, so that "
                                       "actions go to other sites";

struct CheckOptions {
    std::string file;
    std::string publicKey;
    bool allowGaps = false;
};

struct PushOptions {
    FleetOptions fleet;
    std::string file;
    std::string group;
    std::string signingKey;
    bool allowGaps = false;
    bool force = false;
    bool wait = false;
};

std::string shownName(const std::string& file) {
    return file == "-" ? "standard input" : file;
}

/// Whether nothing else keeps a policy from being fine.
bool hasOnlyAGap(const CheckedPolicy& policy) {
    return policy.isFine(true);
}

std::string wordsFor(const CheckedPolicy& policy) {
    if (hasOnlyAGap(policy)) {
        return "has a gap";
    }
    return policy.reading.refused.empty() ? "fails" : "would be refused";
}

constexpr const char* kMendTheGap = "Mend it, or let it through with --allow-gaps";

void policyCheck(Session& session, const CheckOptions& options) {
    agent::PublicKeys keys;
    if (!options.publicKey.empty()) {
        keys.push_back(failAs("cannot read the public key", [&] { return agent::loadPublicKey(options.publicKey); }));
    }
    const CheckedPolicy policy = checkedPolicy(contentOf(options.file, session.inputFd, kMaxRead), keys);
    session.out.write(session.json == JsonMode::Off ? policyText(policy, session.palette)
                                                    : jsonText(policyJson(policy), session.json));
    if (!policy.isFine(options.allowGaps)) {
        throw Failure(ExitCode::Failed, "the policy " + wordsFor(policy), shownName(options.file), whyNotFine(policy),
                      hasOnlyAGap(policy) ? kMendTheGap : "");
    }
}

agent::Audience audienceOf(const PushOptions& options, const Fleet& fleet) {
    return {.site = fleet.site, .group = options.group, .machine = options.fleet.machine};
}

/// The message to push, checked as the machines do. @throws Failure when it is not fine and --force is not given.
CheckedPolicy policyToPush(Session& session, const PushOptions& options, const Fleet& fleet) {
    const agent::Audience audience = audienceOf(options, fleet);
    std::string message = addressed(contentOf(options.file, session.inputFd, kMaxRead), audience);
    if (!options.signingKey.empty()) {
        message = failAs("cannot sign", [&] { return agent::signedMessage(message, options.signingKey); });
    }
    CheckedPolicy policy = checkedPolicy(std::move(message), fleet.policyKeys);
    if (policy.reading.refused.empty()) {
        policy.reading.refused = whyNotFor(policy.reading.identity, audience);
    }
    session.err.write(problemsText(policy, Palette::of(false)));
    if (!policy.isFine(options.allowGaps) && !options.force) {
        throw Failure(ExitCode::Failed, "nothing was pushed", shownName(options.file), whyNotFine(policy),
                      hasOnlyAGap(policy) ? kMendTheGap : "Mend it, or push it all the same with --force");
    }
    return policy;
}

/// What a machine said of the policy with that hash after the push.
struct Answer {
    MachineDocument statement;
    PolicyWord word;
};

Answer awaitAnswer(MqttTool& broker, const std::string& machine, const std::string& sha256,
                   MqttTool::TimePoint deadline) {
    while (const auto message = broker.next(deadline)) {
        MachineDocument statement = machineDocument(machine, message->payload);
        if (message->isRetained) {
            continue; // from before the push
        }
        if (std::optional<PolicyWord> word = wordOn(statement, sha256)) {
            return {std::move(statement), *std::move(word)};
        }
    }
    throw Failure(ExitCode::TimedOut, "no result", machine,
                  "the broker has the policy, but the machine has not answered in time",
                  "It may be off: 'sentrelctl state' tells. It takes the policy when it is back");
}

Json pushedJson(const CheckedPolicy& policy, const std::string& topic) {
    Json all = policyJson(policy);
    return Json{{"topic", topic}, {"version", all["version"]}, {"id", all["id"]}, {"sha256", all["sha256"]}};
}

void tellAnswer(Session& session, const Answer& answer, Json json) {
    if (session.json == JsonMode::Off) {
        session.out.write(resultsText({answer.statement}));
    } else {
        json["result"] = documentJson(answer.statement);
        session.out.write(jsonText(json, session.json));
    }
    if (!answer.word.isInForce) {
        throw Failure(ExitCode::Failed, "the policy is not in force as a whole", answer.statement.machine,
                      answer.word.why, "");
    }
}

void tellPushed(Session& session, const CheckedPolicy& policy, const std::string& target, Json json, bool isLast) {
    if (session.json == JsonMode::Off) {
        session.out.write(fmt::format("The broker has {} for {}.\n", policyName(policy.reading.identity), target));
    } else if (isLast) {
        json["result"] = nullptr;
        session.out.write(jsonText(json, session.json));
    }
}

void checkTarget(const PushOptions& options) {
    if (options.fleet.machine.empty() == options.group.empty()) {
        throw Failure(ExitCode::BadUsage, "bad usage", "", "name either --machine or --group",
                      "See 'sentrelctl policy push --help'");
    }
    if (options.wait && options.fleet.machine.empty()) {
        throw Failure(ExitCode::BadUsage, "bad usage", "", "--wait is for one machine",
                      "'sentrelctl policy results' tells what a group came to");
    }
    static_cast<void>(options.group.empty() ? topicPart("--machine", options.fleet.machine)
                                            : topicPart("--group", options.group));
}

void policyPush(Session& session, const PushOptions& options) {
    checkTarget(options);
    const Fleet fleet = fleetOf(options.fleet);
    const CheckedPolicy policy = policyToPush(session, options, fleet);
    const agent::Topics topics(fleet.site, options.fleet.machine);
    const bool isForGroup = !options.group.empty();
    const std::string topic = isForGroup ? topics.groupPolicy(options.group) : topics.policy();
    const std::string target = fmt::format("{} {} of {}", isForGroup ? "group" : "machine",
                                           isForGroup ? options.group : options.fleet.machine, fleet.site);
    const auto deadline = deadlineAfter(options.fleet.timeout);
    const auto broker = connected(fleet.broker, deadline);
    if (options.wait) {
        broker->subscribe(topics.result());
    }
    broker->publishRetained(topic, policy.message);
    const Json json = pushedJson(policy, topic);
    tellPushed(session, policy, target, json, !options.wait);
    if (options.wait) {
        tellAnswer(session, awaitAnswer(*broker, options.fleet.machine, policy.reading.identity.sha256, deadline),
                   json);
    }
}

Work describeCheck(OptionSet& set, Session& session) {
    const auto options = std::make_shared<CheckOptions>();
    set.add("file", options->file, "The policy; -: standard input").required().shownAs("FILE|-");
    set.add("--public-key", options->publicKey, "Take it only when it is signed with this key's other half")
        .shownAs("FILE");
    set.addFlag(kAllowGaps, options->allowGaps, kAllowGapsHelp);
    return [options, &session] { policyCheck(session, *options); };
}

Work describePush(OptionSet& set, Session& session) {
    const auto options = std::make_shared<PushOptions>();
    options->fleet.timeout = kPushTimeout;
    set.add("file", options->file, "The policy; -: standard input").required().shownAs("FILE|-");
    addFleetOptions(set, options->fleet);
    set.add("--group", options->group, "A group of machines; all: every machine of the site").shownAs("NAME");
    set.add("--sign", options->signingKey, "Sign it with this key, as 'agent keygen --signing' makes it")
        .shownAs("FILE");
    set.addFlag(kAllowGaps, options->allowGaps, kAllowGapsHelp);
    set.addFlag("--force", options->force, "Push it although the machines will refuse it or a part of it");
    set.addFlag("--wait", options->wait, "Wait for the machine's result");
    return [options, &session] { policyPush(session, *options); };
}

} // namespace

Verbs policyVerbs() {
    static constexpr std::array<Verb, 2> verbs{{
        {"policy", "check", "Tells what a policy would do, and what in it is wrong. Needs no broker and no daemon.",
         "  sentrelctl policy check policy.json", describeCheck},
        {"policy", "push", "Checks a policy and gives it to the broker, which keeps it for the machine or the group.",
         "  sentrelctl policy push policy.json --machine desk-1 --wait\n"
         "  sentrelctl policy push policy.json --group all --sign site.key",
         describePush},
    }};
    return verbs;
}

} // namespace Sentrel::ctl
