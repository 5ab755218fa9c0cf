// The options that say which broker, which site and which machines a verb works with.
#pragma once

#include "apps/sentrelctl/OptionSet.h"
#include "apps/sentrelctl/Session.h"
#include "apps/sentrelctl/fleet/MqttTool.h"
#include "base/FileReading.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace Sentrel::ctl {

/// What a verb was told about the broker.
struct FleetOptions {
    std::string config;
    std::string host;
    int port = 0;
    std::string authority;
    std::string certificate;
    std::string key;
    std::string credentials;
    std::string site;
    std::string machine;
    double timeout = kDefaultTimeout;
};

/// Adds --config, --host, --port, --ca, --cert, --key, --credentials, --site, --machine and --timeout.
void addFleetOptions(OptionSet& set, FleetOptions& options);

struct Fleet {
    BrokerAddress broker;
    std::string site;
    HVBEnterprise::agent::PublicKeys policyKeys; ///< when the enrolment asks for signed policies
};

/// The broker and the site: from an enrolment, in which single options replace what it says, or from options alone when
/// they name a host and no enrolment. @throws Failure.
Fleet fleetOf(const FleetOptions& options);

/// @p text, when it can be a level of a topic. @throws Failure (bad usage) that says what it should be.
std::string topicPart(const std::string& option, const std::string& text);

/// Runs @p body; what the agent's library throws becomes a failure that says @p what could not be done.
template <class Body>
auto failAs(const char* what, const Body& body) {
    try {
        return body();
    } catch (const UnsafeFile& error) { // this user may read it, but it is not safe to use
        throw Failure(ExitCode::Failed, what, "", error.what(), "");
    } catch (const std::system_error& error) {
        throw Failure(fileFailure(what, "", error.code().value()).code(), what, "", error.what(), "");
    } catch (const std::runtime_error& error) {
        throw Failure(ExitCode::Failed, what, "", error.what(), "");
    }
}

} // namespace Sentrel::ctl
