// sentrelctl proxy: the proxy through which the browser components reach the reputation service.
//
// The hub announces a proxy with an event, and nobody answers an event. So what counts is the settings file, into which
// the daemon writes the fields one by one: it is read until all of them are there, or the time is over.
//
// What must stay so:
// - The daemon is asked whether it is there before anybody types a password: without it nobody would hear the event.
// - The daemon stores no empty text, and one that is empty would keep the fields behind it from being stored. A text
//   that stands for "none" takes its place, and the same text is refused as a value.
// - A copy of the settings file holds the password. So it is encrypted with the machine's key, unless --as-is is given.
//   That keeps it from whoever has the copy; the daemon opens it for any local user, and the help says so. Without
//   management nobody could decrypt it, and the verb says that.
// - The daemon passes over settings that it has in memory, also when the file has lost them. So the advice after a
//   failure is to restart the daemon before the same settings are sent again.
#include "apps/sentrelctl/Verbs.h"
#include "apps/sentrelctl/clients/DecryptExchange.h"
#include "apps/sentrelctl/clients/HubClient.h"
#include "apps/sentrelctl/fleet/FleetOptions.h"
#include "apps/sentrelctl/preferences/StoredProxy.h"
#include "apps/sentrelctl/preferences/StoredSettings.h"
#include "apps/sentrelctl/terminal/Failure.h"
#include "apps/sentrelctl/terminal/Input.h"
#include "apps/sentrelctl/terminal/SecretInput.h"
#include "base/Paths.h"
#include "base/WipeAtEnd.h"
#include "hub/HubIds.h"
#include "platform/hvbagent/SiteKeys.h"
#include "platform/hvbhelpers/HubProtocol.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <memory>
#include <poll.h>
#include <unistd.h>
#include <vector>

namespace Sentrel::ctl {

namespace {

constexpr const char* kCannotSet = "cannot set the proxy";
constexpr std::size_t kMaxHostBytes = 253; // of a host name
constexpr std::size_t kMaxUserBytes = 255;
constexpr std::size_t kMaxPasswordBytes = HVBEnterprise::agent::kMaxClearText;
constexpr int kDefaultPort = 80;

struct SetOptions {
    std::string host;
    int port = kDefaultPort;
    int type = 0;
    std::string user;
    bool authenticates = false;
    std::string passwordFile;
    bool isAsIs = false;
    double timeout = kDefaultTimeout;
};

Failure refusedText(const char* which, const std::string& why) {
    return {ExitCode::BadUsage, "bad usage", which, why, "Nothing was sent"};
}

/// @p text, when it can be stored and told apart from none.
const std::string& storable(const char* which, const std::string& text, std::size_t limit) {
    if (text.empty() || text.size() > limit) {
        throw refusedText(which, fmt::format("it has {} bytes; 1 to {} are taken", text.size(), limit));
    }
    if (std::any_of(text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == '\x7f'; })) {
        throw refusedText(which, "it has a control character in it");
    }
    if (text == kNoProxyText) {
        throw refusedText(which, "'0' stands for none in the settings file");
    }
    return text;
}

std::string givenPassword(Session& session, const SetOptions& options) {
    if (options.passwordFile.empty() || options.passwordFile == "-") {
        return secretFromInput(session, "Password of the proxy (it is not shown): ", kMaxPasswordBytes);
    }
    std::string text = contentOf(options.passwordFile, session.inputFd, kMaxPasswordBytes + 1);
    if (text.ends_with('\n')) {
        text.pop_back();
    }
    return text;
}

/// As it is to be stored: a copy of the settings file must not tell it.
std::string passwordOf(Session& session, const SetOptions& options) {
    std::string given = givenPassword(session, options);
    const WipeAtEnd wiped(given);
    storable("password", given, kMaxPasswordBytes);
    if (options.isAsIs) {
        return std::string(given);
    }
    if (::access(paths::agentConfiguration().c_str(), F_OK) != 0) {
        throw Failure(ExitCode::Failed, kCannotSet, "the password would be encrypted",
                      "this machine is not managed, so nobody could decrypt it",
                      "Store it as it is with --as-is; the hub then shows it to nobody");
    }
    try {
        std::string encrypted = encryptedWith(paths::agentKey(), given);
        if (encrypted.size() > kMaxEncryptedBytes) {
            throw refusedText("password", "encrypted it is longer than the browser components can take");
        }
        return encrypted;
    } catch (const std::runtime_error& error) {
        throw Failure(ExitCode::Failed, kCannotSet, "the password cannot be encrypted", error.what(),
                      "Make the machine's key with 'sentrelctl agent keygen', or store the password as it is with "
                      "--as-is; the hub then shows it to nobody");
    }
}

/// Without a user there is a text in the place of each that stands for none: the daemon stores no empty one.
proxySettings settingsOf(Session& session, const SetOptions& options) {
    proxySettings settings;
    settings.host = storable("host", options.host, kMaxHostBytes);
    if (settings.host.find(' ') != std::string::npos) {
        throw refusedText("host", "it has a blank in it");
    }
    settings.port = options.port;
    settings.type = options.type;
    settings.httpAuth = options.authenticates ? 1 : 0;
    const bool hasUser = !options.user.empty();
    settings.uname = hasUser ? storable("--user", options.user, kMaxUserBytes) : kNoProxyText;
    settings.pass = hasUser ? passwordOf(session, options) : kNoProxyText;
    return settings;
}

void publish(HubClient& hub, const proxySettings& settings) {
    HVB::EventData event(EVT_PROXY_SETTINGS_CHANGE);
    event.writePayload(std::vector<proxySettings>{settings});
    if (!hub.publish(event)) {
        throw Failure(ExitCode::NoAccess, kCannotSet, "", "the hub takes that event from root and its services alone",
                      "Run it as root");
    }
}

StoredProxy storedProxy() {
    try {
        return readStoredProxy(paths::settingsFile());
    } catch (const Failure& failure) {
        throw failure.of("the proxy was sent; whether it is stored cannot be seen");
    }
}

/// The fields in the file: those of @p wanted as soon as they stand there, or what there is at the deadline.
StoredProxy awaitStored(const StoredProxy& wanted, std::chrono::steady_clock::time_point deadline) {
    constexpr int betweenLooks = 20; // milliseconds; each look is a lock on the file for far less than one
    for (;;) {
        StoredProxy stored = storedProxy();
        if (stored == wanted || std::chrono::steady_clock::now() >= deadline) {
            return stored;
        }
        static_cast<void>(::poll(nullptr, 0, betweenLooks)); // cut short by a signal it looks sooner
    }
}

void show(Session& session, const StoredProxy& proxy) {
    session.out.write(session.json == JsonMode::Off ? proxyText(proxy, session.palette)
                                                    : jsonText(proxyJson(proxy), session.json));
}

void proxyShow(Session& session) {
    try {
        show(session, readStoredProxy(paths::settingsFile()));
    } catch (const Failure& failure) {
        if (failure.code() != ExitCode::NoAccess) {
            throw;
        }
        show(session, proxyIn(freshSettings(kDefaultTimeout, "cannot read the proxy settings")));
    }
}

void refuseLooseOptions(const SetOptions& options) {
    if (options.user.empty() && (options.authenticates || !options.passwordFile.empty() || options.isAsIs)) {
        throw Failure(ExitCode::BadUsage, "bad usage", "", "--auth, --password-file and --as-is need a --user",
                      "See 'sentrelctl proxy set --help'");
    }
}

void sendToDaemon(Session& session, const SetOptions& options, proxySettings& settings) {
    try {
        HubClient hub(paths::hubSocket(), options.timeout);
        // Before anybody types a password: without the daemon nobody would hear the event.
        hub.ping(HVB::bus::moduleName(HVB::MODULE_SENTREL), HVB::bus::modulePath(HVB::MODULE_SENTREL));
        settings = settingsOf(session, options);
        publish(hub, settings);
    } catch (const HVB::HVBException& error) {
        throw hubFailure(error, kCannotSet);
    }
}

void proxySet(Session& session, const SetOptions& options) {
    refuseLooseOptions(options);
    proxySettings settings;
    sendToDaemon(session, options, settings);
    const StoredProxy wanted = storedFormOf(settings);
    const StoredProxy stored = awaitStored(wanted, deadlineAfter(options.timeout));
    show(session, stored);
    if (stored != wanted) {
        throw Failure(ExitCode::Failed, "the proxy was not stored whole", paths::settingsFile(),
                      fmt::format("it does not hold what was sent after {:g} seconds", options.timeout),
                      "Let the daemon's user write it; 'sentrelctl doctor' looks at it. Start the daemon again before "
                      "you send the same once more, which it would pass over");
    }
}

Work describeProxySet(OptionSet& set, Session& session) {
    const auto options = std::make_shared<SetOptions>();
    constexpr int lastPort = 65535;
    constexpr int lastType = 255;
    set.add("host", options->host, "Name or address of the proxy").required().shownAs("HOST");
    set.add("--port", options->port, "Its port (default 80)").shownAs("N").between(1, lastPort);
    set.add("--type", options->type, "Its type, a number that the browser components know (default 0)")
        .shownAs("N")
        .between(0, lastType);
    set.add("--user", options->user, "The user's name at the proxy; without it, none").shownAs("NAME");
    set.addFlag("--auth", options->authenticates, "The proxy asks for name and password");
    set.add("--password-file", options->passwordFile, "The password (-: standard input, or a prompt)").shownAs("FILE");
    set.addFlag(
        "--as-is", options->isAsIs,
        "Do not encrypt the password: 'sentrelctl encrypt' has done so, or a copy of the settings file may tell it");
    set.addTimeout(options->timeout);
    return [options, &session] { proxySet(session, *options); };
}

Work describeProxyShow(OptionSet& /*set*/, Session& session) {
    return [&session] { proxyShow(session); };
}

} // namespace

Verbs proxyVerbs() {
    static constexpr std::array<Verb, 2> verbs{{
        {"proxy", "set",
         "Tells the daemon of the proxy, as the hub does, and shows what is stored then. The "
         "password comes from a prompt, from standard input or from a file, and is stored "
         "encrypted with this machine's key. That keeps it from whoever gets a copy of the file: the daemon opens it "
         "for "
         "every local user who asks.",
         "  sentrelctl proxy set proxy.example --port 3128\n"
         "  sentrelctl proxy set proxy.example --user anna --auth --password-file secret.txt",
         describeProxySet},
        {"proxy", "show",
         "Shows the proxy that is stored in the settings file, but not its password. Who may read the file needs "
         "neither "
         "hub nor daemon.",
         "  sentrelctl proxy show", describeProxyShow},
    }};
    return verbs;
}

} // namespace Sentrel::ctl
