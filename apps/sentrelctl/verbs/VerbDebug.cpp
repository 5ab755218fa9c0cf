// sentrelctl debug: the daemon's debug logging.
//
// The daemon answers a switch before it makes it: a thread of its own rewrites the hub's configuration file, and then
// signals that a preference changed. Nothing tells of a failure there, so what counts is what the daemon says when it
// is asked again after that signal, or when the time is over.
#include "apps/sentrelctl/Verbs.h"
#include "apps/sentrelctl/clients/ChangeBell.h"
#include "apps/sentrelctl/clients/CommandChannel.h"
#include "apps/sentrelctl/preferences/PreferenceLayout.h"
#include "base/Paths.h"
#include "hub/Exceptions.h"
#include "hub/HubIds.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <fmt/format.h>
#include <memory>

namespace Sentrel::ctl {
namespace {

constexpr const char* kAfterFailure =
    "The daemon must be able to read and replace HVConfig.xml: 'sentrelctl doctor' looks "
    "at it";
constexpr CommandPurpose kAsking{"cannot read the debug logging", nullptr, kAfterFailure};
constexpr CommandPurpose kSwitching{"cannot switch the debug logging",
                                    "The daemon may still do it: look with 'sentrelctl debug show'", kAfterFailure};

using Time = std::chrono::steady_clock::time_point;

struct DebugOptions {
    double timeout = kDefaultTimeout;
};

const char* word(bool isOn) {
    return isOn ? "on" : "off";
}

bool isDebugLogging(const CommandChannel& channel) {
    HVB::CommandData command(CMD_GET_DEBUG_LOGGING_STATUS, HVB::MODULE_SENTREL, true);
    HVB::CommandResult result;
    channel.sendAndCheck(command, result, kAsking);
    return payloadOf<bool>(result, kAsking.what);
}

void show(Session& session, bool isOn) {
    session.out.write(session.json == JsonMode::Off ? rowText("debug-logging", word(isOn), session.palette)
                                                    : jsonText(Json{{"debug_logging", isOn}}, session.json));
}

void debugShow(Session& session, const DebugOptions& options) {
    show(session, isDebugLogging(CommandChannel(options.timeout)));
}

void sendSwitch(bool isOn, const CommandChannel& channel) {
    HVB::CommandData command(CMD_SET_DEBUG_LOGGING_STATUS, HVB::MODULE_SENTREL, true);
    command.writePayload(isOn);
    HVB::CommandResult result;
    channel.sendAndCheck(command, result, kSwitching);
}

/// Asks until the daemon says @p wanted: once, and after each change that it signals until @p until.
bool becomes(bool wanted, const CommandChannel& channel, ChangeBell& bell, Time until) {
    for (;;) {
        if (isDebugLogging(channel) == wanted) {
            return true;
        }
        if (!bell.waitUntil(until)) {
            return false;
        }
        bell.take();
    }
}

/// The daemon drops a switch while it makes another, so it is told again. Told what is so already it does nothing.
bool switches(bool isOn, const CommandChannel& channel, ChangeBell& bell, double timeout) {
    constexpr std::chrono::milliseconds untilToldAgain{500};
    const Time deadline = deadlineAfter(timeout);
    do {
        sendSwitch(isOn, channel);
        if (becomes(isOn, channel, bell, std::min(deadline, std::chrono::steady_clock::now() + untilToldAgain))) {
            return true;
        }
    } while (std::chrono::steady_clock::now() < deadline);
    return false;
}

void debugSwitch(Session& session, const DebugOptions& options, bool isOn) {
    ChangeBell bell;
    const CommandChannel channel(options.timeout); // ends the broker before the bell goes
    try {
        bell.subscribe(paths::hubSocket(), {EVT_PREFERENCES_CHANGE});
    } catch (const HVB::HVBException& error) {
        throw hubFailure(error, kSwitching.what);
    }
    const bool isDone = switches(isOn, channel, bell, options.timeout);
    show(session, isDone == isOn);
    if (!isDone) {
        throw Failure(ExitCode::Failed, "not what was asked for", "debug-logging",
                      fmt::format("it is still {} after {:g} seconds", word(!isOn), options.timeout),
                      fmt::format("See that the daemon's user can write {} and its directory, and that no other change "
                                  "was under way; 'sentrelctl doctor' looks at the file",
                                  paths::moduleConfiguration()));
    }
}

template <bool isOn>
Work describeSwitch(OptionSet& set, Session& session) {
    const auto options = std::make_shared<DebugOptions>();
    set.addTimeout(options->timeout);
    return [options, &session] { debugSwitch(session, *options, isOn); };
}

Work describeDebugShow(OptionSet& set, Session& session) {
    const auto options = std::make_shared<DebugOptions>();
    set.addTimeout(options->timeout);
    return [options, &session] { debugShow(session, *options); };
}

} // namespace

Verbs debugVerbs() {
    static constexpr std::array<Verb, 3> verbs{{
        {"debug", "on", "Has the daemon's log lines of every level go to the system log.", "  sentrelctl debug on",
         describeSwitch<true>},
        {"debug", "off", "Has the daemon's log lines go to the system log from the level information up.",
         "  sentrelctl debug off", describeSwitch<false>},
        {"debug", "show", "Shows whether debug logging is on.", "  sentrelctl debug show", describeDebugShow},
    }};
    return verbs;
}

} // namespace Sentrel::ctl
