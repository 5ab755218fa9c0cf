#include "apps/sentrelctl/fleet/FleetOptions.h"

#include "base/Paths.h"

#include <cerrno>
#include <fmt/format.h>
#include <system_error>

namespace Sentrel::ctl {
namespace {

namespace agent = HVBEnterprise::agent;

constexpr const char* kCannotRead = "cannot read the enrolment";
constexpr std::uint16_t kPlainPort = 1883;
constexpr std::uint16_t kTlsPort = 8883;
constexpr int kLastPort = 65535;

Failure noEnrolment(const std::string& path, const std::string& why) {
    return {ExitCode::Failed, kCannotRead, path, why,
            "Name another file with --config, or the broker with --host and --site"};
}

agent::AgentConfiguration enrolment(const std::string& path) {
    try {
        return agent::readEnrolment(path);
    } catch (const std::system_error& error) {
        const int number = error.code().value();
        if (number == EACCES || number == EPERM) {
            throw Failure(ExitCode::NoAccess, kCannotRead, path, errnoText(number), "Name another with --config");
        }
        throw noEnrolment(path, error.code().message());
    } catch (const agent::DocumentError& error) {
        throw noEnrolment(path, error.what());
    }
}

void takeOptions(const FleetOptions& options, Fleet& fleet) {
    if (!options.host.empty()) {
        fleet.broker.host = options.host;
    }
    if (!options.authority.empty()) {
        fleet.broker.tls = agent::TlsFiles{.authority = options.authority, .certificate = {}, .key = {}};
    }
    if (!options.certificate.empty()) {
        if (!fleet.broker.tls) {
            throw Failure(ExitCode::BadUsage, "bad usage", "", "--cert needs --ca", "");
        }
        fleet.broker.tls->certificate = options.certificate;
        fleet.broker.tls->key = options.key;
    }
    if (!options.credentials.empty()) {
        fleet.broker.credentialsFile = options.credentials;
    }
    if (!options.site.empty()) {
        fleet.site = topicPart("--site", options.site);
    }
    if (options.port != 0) {
        fleet.broker.port = static_cast<std::uint16_t>(options.port);
    } else if (fleet.broker.port == 0) {
        fleet.broker.port = fleet.broker.tls ? kTlsPort : kPlainPort;
    }
}

} // namespace

void addFleetOptions(OptionSet& set, FleetOptions& options) {
    set.add("--config", options.config,
            "The enrolment that names broker and site (default: this machine's own, " + paths::agentConfiguration() +
                ")")
        .shownAs("FILE");
    set.add("--host", options.host, "The broker's host").shownAs("HOST");
    set.add("--port", options.port, "Its port (default 1883, with TLS 8883)").shownAs("PORT").between(1, kLastPort);
    set.add("--ca", options.authority, "TLS: the authority that the broker's certificate is of").shownAs("FILE");
    Option certificate = set.add("--cert", options.certificate, "TLS: this client's certificate").shownAs("FILE");
    Option key = set.add("--key", options.key, "TLS: its key").shownAs("FILE");
    certificate.needs(key);
    key.needs(certificate);
    set.add("--credentials", options.credentials,
            "A file with user and password, see docs/fleet.md; only its owner may access it")
        .shownAs("FILE");
    set.add("--site", options.site, "The site").shownAs("SITE");
    set.add("--machine", options.machine, "One machine").shownAs("ID");
    set.addTimeout(options.timeout);
}

Fleet fleetOf(const FleetOptions& options) {
    Fleet fleet;
    if (!options.config.empty() || options.host.empty()) {
        agent::AgentConfiguration read =
            enrolment(options.config.empty() ? paths::agentConfiguration() : options.config);
        fleet.broker.host = read.host;
        fleet.broker.port = read.port;
        fleet.broker.tls = read.tls;
        fleet.broker.credentialsFile = read.credentialsFile;
        fleet.site = read.site;
        fleet.policyKeys = read.policyKeys;
    }
    takeOptions(options, fleet);
    if (fleet.site.empty()) {
        throw Failure(ExitCode::BadUsage, "bad usage", "", "no site is named", "Name it with --site");
    }
    return fleet;
}

std::string topicPart(const std::string& option, const std::string& text) {
    if (!agent::isTopicPart(text)) {
        throw Failure(ExitCode::BadUsage, "bad usage", option,
                      fmt::format("it is not 1 to {} characters out of letters, digits, \"_\", \".\" and \"-\"",
                                  agent::kMaxTopicPart),
                      "");
    }
    return text;
}

} // namespace Sentrel::ctl
