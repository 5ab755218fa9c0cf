// sentrelctl event send: what a browser component does when it has decided on a page.
#include "apps/sentrelctl/Session.h"
#include "apps/sentrelctl/clients/EventRecord.h"
#include "apps/sentrelctl/clients/EventSocket.h"
#include "apps/sentrelctl/terminal/Failure.h"
#include "base/Paths.h"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <fmt/format.h>
#include <memory>
#include <unistd.h>

namespace Sentrel::ctl {
namespace {

constexpr std::size_t kMaxRawBytes = std::size_t{64} << 20; // more would only fill this process's memory

constexpr std::uint32_t kMaxRepeat = 1000000;

constexpr const char* kExample =
    "  sentrelctl event send --url https://red.example/page --browser firefox --rating 60 --action block\n"
    "  head -c 100 /dev/urandom | sentrelctl event send --raw -";

struct Options {
    RecordFields fields;
    std::string action = "block";
    std::string raw;
    bool isRaw = false;
    bool noWait = false;
    std::uint32_t repeat = 1;
    double timeout = kDefaultTimeout;
};

std::string readFile(const std::string& name, int inputFd) {
    if (name == "-") {
        return readAll(inputFd, "standard input", kMaxRawBytes);
    }
    const int fd = ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        throw Failure(ExitCode::Failed, "cannot read", name, errnoText(errno), "");
    }
    const std::unique_ptr<const int, void (*)(const int*)> closing(&fd, [](const int* each) { ::close(*each); });
    return readAll(fd, name, kMaxRawBytes);
}

void sendMessage(const std::string& message, const Options& options) {
    EventSocket socket(paths::eventSocket(), deadlineAfter(options.timeout));
    socket.sendOnce(message);
    if (message.empty()) {
        socket.endSending();
    }
    if (!options.noWait) {
        socket.waitForClose();
    }
}

std::string summary(std::size_t bytes, const Options& options) {
    return fmt::format("Sent {} {} of {} bytes to {}{}.\n", options.repeat,
                       options.repeat == 1 ? "message" : "messages", bytes, paths::eventSocket(),
                       options.noWait ? "" : "; the daemon has taken it");
}

void eventSend(Session& session, Options& options) {
    options.fields.action = actionCode(options.action);
    const std::string message = options.isRaw ? readFile(options.raw, session.inputFd) : recordBytes(options.fields);
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
CLI::Option* addFlagNumber(CLI::App& verb, const std::string& name, std::int32_t& value, const std::string& help) {
    CLI::Option* option = verb.add_option(name, value, help + fmt::format(" (default {}; alone: 1)", value));
    option->expected(0, 1)->default_str("1")->option_text("[N]");
    return option;
}

std::vector<CLI::Option*> addFields(CLI::App& verb, RecordFields& fields, std::string& action) {
    const auto text = [&verb](const char* name, std::string& value, const char* help, std::size_t limit) {
        return verb.add_option(name, value, fmt::format("{}, at most {} bytes (default {})", help, limit, value))
            ->option_text("TEXT");
    };
    const auto number = [&verb](const char* name, std::int32_t& value, const char* help) {
        return verb.add_option(name, value, fmt::format("{} (default {})", help, value))->option_text("N");
    };
    return {
        text("--event-id", fields.eventId, "Name of the event", kMaxEventIdBytes),
        text("--url", fields.url, "The page", kMaxUrlBytes),
        text("--browser", fields.browser, "Process name of the browser", kMaxBrowserBytes),
        number("--rating", fields.rating, "Rating of the site; -100: no rating"),
        verb.add_option("--action", action, "allow (1), warn (2), block (3) or a number (default block)")
            ->option_text("ACTION"),
        addFlagNumber(verb, "--in-list", fields.inList, "1: the page is on the allow/block list"),
        addFlagNumber(verb, "--list-blocks", fields.listBlocks, "1: the list entry blocks it"),
        addFlagNumber(verb, "--blocked-in-category", fields.blockedInCategory, "1: blocked by its content category"),
        number("--category", fields.category, "Number of that category"),
        addFlagNumber(verb, "--phishing", fields.phishing, "1: a phishing page"),
        addFlagNumber(verb, "--reputation-reachable", fields.reputationReachable,
                      "1: the reputation service could be reached"),
        number("--count", fields.count, "Event count"),
        number("--user-action", fields.userAction, "What the user answered to a warning; 0: nothing yet"),
    };
}

} // namespace

void registerEventSend(CLI::App& app, Session& session) {
    const auto options = std::make_shared<Options>();
    CLI::App& verb = addVerb(verbGroup(app, "event", "Browser events"), "send",
                             "Sends a browser event to the daemon, as a browser component does. Without options it is "
                             "a sample: a red site that was blocked.",
                             kExample);
    const std::vector<CLI::Option*> fields = addFields(verb, options->fields, options->action);
    CLI::Option* raw = verb.add_option("--raw", options->raw, "Send the bytes of FILE (-: standard input) as they are");
    raw->option_text("FILE");
    for (CLI::Option* field : fields) {
        raw->excludes(field);
    }
    verb.add_option("--repeat", options->repeat, "Send it N times (default 1), each on its own connection")
        ->option_text("N")
        ->check(CLI::Range(1U, kMaxRepeat));
    verb.add_flag("--no-wait", options->noWait, "Do not wait until the daemon has taken each message");
    addTimeout(verb, options->timeout);
    verb.callback([options, raw, &session] {
        options->isRaw = raw->count() > 0;
        session.chosen = [options, &session] { eventSend(session, *options); };
    });
}

} // namespace Sentrel::ctl
