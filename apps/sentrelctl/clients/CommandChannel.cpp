#include "apps/sentrelctl/clients/CommandChannel.h"

#include "base/Paths.h"
#include "hub/HVBCommBroker.h"
#include "platform/hvbhelpers/BusConnection.h"
#include "platform/hvbhelpers/HubProtocol.h"

#include <cerrno>
#include <cmath>
#include <fmt/format.h>

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

Failure commandFailure(const HVB::HVBException& error, const CommandPurpose& purpose, const std::string& nextStep) {
    if (error.code() == -ETIMEDOUT && purpose.afterTimeout != nullptr) {
        return {ExitCode::TimedOut, purpose.what, "", error.message(), purpose.afterTimeout};
    }
    // What comes from the daemon itself: its exception left the handler, or it does not know the command.
    if (exitCodeOfHub(error.code()) == ExitCode::Failed) {
        return {ExitCode::Failed, purpose.what, "the daemon", error.message(), nextStep};
    }
    return hubFailure(error, purpose.what);
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
        throw commandFailure(
            error, purpose,
            lacksConfiguration(error, purpose)
                ? fmt::format("See that the daemon's user can read {}, then try again", paths::moduleConfiguration())
                : stepAfterFailure(purpose));
    } catch (const HVB::HVBException& error) {
        throw commandFailure(error, purpose, stepAfterFailure(purpose));
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
