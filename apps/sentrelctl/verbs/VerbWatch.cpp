// sentrelctl watch: the preferences as they change.
//
// An event says that something has changed and not what, so all preferences are read back and compared with what was
// read last. The subscription stands before the first read: nothing falls between.
#include "apps/sentrelctl/Verbs.h"
#include "apps/sentrelctl/clients/ChangeBell.h"
#include "apps/sentrelctl/clients/HubClient.h"
#include "apps/sentrelctl/preferences/PreferenceLayout.h"
#include "apps/sentrelctl/terminal/Failure.h"
#include "apps/sentrelctl/terminal/StopSignals.h"
#include "apps/sentrelctl/terminal/Times.h"
#include "base/Paths.h"
#include "hub/HubIds.h"

#include <array>
#include <chrono>
#include <fmt/format.h>
#include <memory>
#include <utility>

namespace Sentrel::ctl {
namespace {

constexpr const char* kWatchExample = "  sentrelctl watch\n"
                                      "  sentrelctl watch --json=short | jq -c '.changes[]'";

struct WatchOptions {
    double timeout = kDefaultTimeout;
};

std::int64_t microsecondsNow() {
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

/// What there is to begin with.
void showStart(Session& session, const Snapshot& snapshot) {
    const std::int64_t time = microsecondsNow();
    if (session.json == JsonMode::Off) {
        session.out.write(fmt::format("{}  watching\n", localTime(time)) + snapshotText(snapshot, session.palette));
        return;
    }
    session.out.write(jsonText(Json{{"time", utcTime(time)},
                                    {"event", nullptr},
                                    {"changes", Json::array()},
                                    {"preferences", snapshotJson(snapshot)}},
                               session.json));
}

void showEvent(Session& session, std::int32_t event, const std::vector<Change>& changes) {
    const std::int64_t time = microsecondsNow();
    const bool isStatus = event == EVT_DASHBOARD_STATUS_CHANGE;
    if (session.json == JsonMode::Off) {
        std::string text = fmt::format("{}  {} changed ({}){}\n", localTime(time), isStatus ? "status" : "preferences",
                                       event, changes.empty() ? ": nothing new" : "");
        for (const Change& change : changes) {
            text += change.text;
        }
        session.out.write(text);
        return;
    }
    Json list = Json::array();
    for (const Change& change : changes) {
        list.push_back(change.json);
    }
    session.out.write(jsonText(Json{{"time", utcTime(time)}, {"event", event}, {"changes", list}}, session.json));
}

void watchUntilStopped(Session& session, const WatchOptions& options) {
    const std::string path = paths::hubSocket();
    const StopSignals stop; // before any thread
    HubClient hub(path, options.timeout);
    hub.subscribeToFarewell();
    ChangeBell bell;
    PreferenceClient client(options.timeout); // ends the broker before the bell goes
    bell.subscribe(path, {EVT_DASHBOARD_STATUS_CHANGE, EVT_PREFERENCES_CHANGE});
    Snapshot known = client.readAll();
    showStart(session, known);
    while (hub.waitForBell(bell.fd(), stop.fd(), session.out.fd()) == HubClient::Wake::Bell) {
        for (const std::int32_t event : bell.take()) {
            Snapshot now = client.readAll();
            showEvent(session, event, changesBetween(known, now));
            known = std::move(now);
        }
    }
}

void watch(Session& session, const WatchOptions& options) {
    try {
        watchUntilStopped(session, options);
    } catch (const HVB::HVBException& error) {
        throw hubFailure(error, "cannot watch the preferences");
    }
}

Work describeWatch(OptionSet& set, Session& session) {
    const auto options = std::make_shared<WatchOptions>();
    set.addTimeout(options->timeout);
    return [options, &session] { watch(session, *options); };
}

} // namespace

Verbs watchVerbs() {
    static constexpr std::array<Verb, 1> verbs{{
        {"", "watch", "Shows the preferences and then each change to them, until Ctrl-C.", kWatchExample,
         describeWatch},
    }};
    return verbs;
}

} // namespace Sentrel::ctl
