// How the command handlers reach the controller and answer.
#pragma once

#include "base/Paths.h"
#include "hub/HVBCommBroker.h"
#include "hub/HVBMessages.h"
#include "store/STPreferenceController.h"

namespace Sentrel::detail {

/// Sends @p result as the answer to @p command. Without the command's header it could not be matched to it.
inline void reply(HVB::CommandResult& result, const HVB::CommandData& command, bool succeeded) {
    result.m_commandData = command;
    result.m_bSucceeded = succeeded;
    result.m_bValid = true;
    HVB::HVBCommBroker::getInstance(paths::hubSocket())->sendCommandResponse(result);
}

/// Answers @p command with one value.
template <class Value>
void replyWith(const HVB::CommandData& command, const Value& value, bool succeeded = true) {
    HVB::CommandResult result;
    result.writePayload(value);
    reply(result, command, succeeded);
}

} // namespace Sentrel::detail
