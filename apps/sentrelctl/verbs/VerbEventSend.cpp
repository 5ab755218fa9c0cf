// sentrelctl event send: what a browser component does when it has decided on a page.
#include "apps/sentrelctl/Verbs.h"
#include "apps/sentrelctl/clients/EventRecord.h"
#include "apps/sentrelctl/clients/EventSocket.h"
#include "apps/sentrelctl/terminal/Failure.h"
#include "apps/sentrelctl/terminal/Input.h"
#include "base/Paths.h"

#include <array>
#include <cstdint>
#include <fmt/format.h>
#include <memory>

namespace Sentrel::ctl {
namespace {

constexpr std::size_t kMaxRawBytes = std::size_t{64} << 20; // more would only fill this process's memory

constexpr std::uint32_t kMaxRepeat = 1000000;

constexpr const char* kEventSendExample =
    "  sentrelctl event send --url https://red.example/page --browser firefox --rating 60 --action block\n"
    "  head -c 100 /dev/urandom | sentrelctl event send --raw -";

struct EventSendOptions {
    RecordFields fields;
    std::string action = "block";
    std::string raw;
    bool isRaw = false;
    bool noWait = false;
    std::uint32_t repeat = 1;
    double timeout = kDefaultTimeout;
};

void sendMessage(const std::string& message, const EventSendOptions& options) {
    EventSocket socket(paths::eventSocket(), deadlineAfter(options.timeout));
    socket.sendOnce(message);
    if (message.empty()) {
        socket.endSending();
    }
    if (!options.noWait) {
        socket.waitForClose();
    }
}

std::string summary(std::size_t bytes, const EventSendOptions& options) {
    return fmt::format("Sent {} {} of {} bytes to {}{}.\n", options.repeat,
                       options.repeat == 1 ? "message" : "messages", bytes, paths::eventSocket(),
                       options.noWait ? "" : "; the daemon has taken it");
}

void eventSend(Session& session, EventSendOptions& options) {
    options.fields.action = actionCode(options.action);
    const std::string message =
        options.isRaw ? contentOf(options.raw, session.inputFd, kMaxRawBytes) : recordBytes(options.fields);
    for (std::uint32_t sent = 0; sent < options.repeat; ++sent) {
        sendMessage(message, options);
    }
    if (session.json == JsonMode::Off) {
        session.out.write(summary(message.size(), options));
        return;
    }
    session.out.write(jsonText(Json{{"socket", paths::eventSocket()},
                                    {"messages", options.repeat},
                                    {"bytes", message.size()},
                                    {"taken", !options.noWait},
                                    {"record", options.isRaw ? Json(nullptr) : recordJson(options.fields)}},
                               session.json));
}

/// Adds an option for a number that is mostly 0 or 1: alone it sets 1.
Option addFlagNumber(OptionSet& set, const std::string& name, std::int32_t& value, const std::string& help) {
    return set.add(name, value, help + fmt::format(" (default {}; alone: 1)", value)).whenAlone("1").shownAs("[N]");
}

std::vector<Option> addFields(OptionSet& set, RecordFields& fields, std::string& action) {
    const auto text = [&set](const char* name, std::string& value, const char* help, std::size_t limit) {
        return set.add(name, value, fmt::format("{}, at most {} bytes (default {})", help, limit, value))
            .shownAs("TEXT");
    };
    const auto number = [&set](const char* name, std::int32_t& value, const char* help) {
        return set.add(name, value, fmt::format("{} (default {})", help, value)).shownAs("N");
    };
    return {
        text("--event-id", fields.eventId, "Name of the event", kMaxEventIdBytes),
        text("--url", fields.url, "The page", kMaxUrlBytes),
        text("--browser", fields.browser, "Process name of the browser", kMaxBrowserBytes),
        number("--rating", fields.rating, "Rating of the site; -100: no rating"),
        set.add("--action", action, "allow (1), warn (2), block (3) or a number (default block)").shownAs("ACTION"),
        addFlagNumber(set, "--in-list", fields.inList, "1: the page is on the allow/block list"),
        addFlagNumber(set, "--list-blocks", fields.listBlocks, "1: the list entry blocks it"),
        addFlagNumber(set, "--blocked-in-category", fields.blockedInCategory, "1: blocked by its content category"),
        number("--category", fields.category, "Number of that category"),
        addFlagNumber(set, "--phishing", fields.phishing, "1: a phishing page"),
        addFlagNumber(set, "--reputation-reachable", fields.reputationReachable,
                      "1: the reputation service could be reached"),
        number("--count", fields.count, "Event count"),
        number("--user-action", fields.userAction, "What the user answered to a warning; 0: nothing yet"),
    };
}

Work describeSend(OptionSet& set, Session& session) {
    const auto options = std::make_shared<EventSendOptions>();
    const std::vector<Option> fields = addFields(set, options->fields, options->action);
    Option raw =
        set.add("--raw", options->raw, "Send the bytes of FILE (-: standard input) as they are").shownAs("FILE");
    for (const Option& field : fields) {
        raw.excludes(field);
    }
    set.add("--repeat", options->repeat, "Send it N times (default 1), each on its own connection")
        .shownAs("N")
        .between(1, kMaxRepeat);
    set.addFlag("--no-wait", options->noWait, "Do not wait until the daemon has taken each message");
    set.addTimeout(options->timeout);
    return [options, raw, &session] {
        options->isRaw = raw.isGiven();
        eventSend(session, *options);
    };
}

} // namespace

Verbs eventVerbs() {
    static constexpr std::array<Verb, 1> verbs{{
        {"event", "send",
         "Sends a browser event to the daemon, as a browser component does. Without options it is "
         "a sample: a red site that was blocked.",
         kEventSendExample, describeSend},
    }};
    return verbs;
}

} // namespace Sentrel::ctl
