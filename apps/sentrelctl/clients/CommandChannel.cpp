#include "apps/sentrelctl/clients/CommandChannel.h"

#include "apps/sentrelctl/clients/HubClient.h"
#include "base/Paths.h"
#include "hub/HVBCommBroker.h"
#include "platform/hvbhelpers/BusConnection.h"
#include "platform/hvbhelpers/HubProtocol.h"

#include <cerrno>
#include <cmath>
#include <fmt/format.h>
#include <optional>
#include <string>

namespace Sentrel::ctl {
namespace {

std::string stepAfterFailure(const CommandPurpose& purpose) {
    if (purpose.afterFailure != nullptr) {
        return purpose.afterFailure;
    }
    return fmt::format("The daemon's trace log {} says more, if tracing is on", paths::traceLog());
}

/// Whether the daemon's handler failed because it cannot read the hub's configuration of the module.
bool lacksConfiguration(const HVB::bus::CallError& error, const CommandPurpose& purpose) {
    constexpr std::int32_t cannotRead = 3; // the daemon's own number for that
    return error.name() == HVB::bus::kErrorFailed && (purpose.readsConfiguration || error.handlerCode() == cannotRead);
}

/// What hvbd knows against the daemon's configuration; empty when it knows nothing, or does not tell this user.
std::string configurationProblem(const std::string& socketPath, double timeout) {
    try {
        const std::optional<ModuleHealth> daemon = HubClient(socketPath, timeout).daemonHealth();
        return daemon ? daemon->configurationProblem : "";
    } catch (const HVB::HVBException&) {
        return {}; // the failure that is being reported is the command's
    }
}

Failure commandFailure(const HVB::HVBException& error, const CommandPurpose& purpose) {
    if (error.code() == -ETIMEDOUT && purpose.afterTimeout != nullptr) {
        return {ExitCode::TimedOut, purpose.what, "", error.message(), purpose.afterTimeout};
    }
    // What comes from the daemon itself: its exception left the handler, or it does not know the command.
    if (exitCodeOfHub(error.code()) == ExitCode::Failed) {
        return {ExitCode::Failed, purpose.what, "the daemon", error.message(), stepAfterFailure(purpose)};
    }
    return hubFailure(error, purpose.what);
}

/// Whether the daemon's handler took the command and failed: some handlers let the exception go, some do not answer.
bool comesFromHandler(const HVB::bus::CallError& error) {
    return error.name() == HVB::bus::kErrorFailed || error.name() == HVB::bus::kErrorNoReply;
}

/// The failure of a command at which the handler failed.
Failure handlerFailure(const HVB::bus::CallError& error, const CommandPurpose& purpose, const std::string& problem) {
    const std::string file = paths::moduleConfiguration();
    if (!problem.empty()) {
        return {ExitCode::Failed, purpose.what, "the daemon",
                fmt::format("{}; hvbd finds that the daemon cannot use {}: {}", error.message(), file, problem),
                "Mend that file, then try again"};
    }
    if (lacksConfiguration(error, purpose)) {
        return {ExitCode::Failed, purpose.what, "the daemon", error.message(),
                fmt::format("See that the daemon's user can read {}, then try again", file)};
    }
    return commandFailure(error, purpose);
}

} // namespace

Failure unreadableAnswer(const char* what, const char* why) {
    return {ExitCode::Failed, what, "the daemon's answer cannot be read", why,
            "Use a sentrelctl of the daemon's version"};
}

CommandChannel::CommandChannel(double timeout)
    : m_socketPath(paths::hubSocket()), m_timeout(static_cast<int>(std::ceil(timeout))) {}

CommandChannel::~CommandChannel() {
    HVB::HVBCommBroker::releaseInstance();
}

void CommandChannel::send(HVB::CommandData& command, HVB::CommandResult& result, const CommandPurpose& purpose) const {
    try {
        HVB::HVBCommBroker::getInstance(m_socketPath)->sendCommand(command, &result, true, m_timeout);
    } catch (const HVB::bus::CallError& error) {
        if (!comesFromHandler(error)) {
            throw commandFailure(error, purpose);
        }
        throw handlerFailure(error, purpose, configurationProblem(m_socketPath, m_timeout));
    } catch (const HVB::HVBException& error) {
        throw commandFailure(error, purpose);
    }
}

void CommandChannel::sendAndCheck(HVB::CommandData& command, HVB::CommandResult& result,
                                  const CommandPurpose& purpose) const {
    send(command, result, purpose);
    if (!result.m_bSucceeded || !result.m_bValid) {
        throw Failure(ExitCode::Failed, purpose.what, "the daemon", "it says that the command failed",
                      stepAfterFailure(purpose));
    }
}

} // namespace Sentrel::ctl
