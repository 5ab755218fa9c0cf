#include "hub/VXCommandImpl.h"

#include "daemon/Trace.h"
#include "hub/CommandReply.h"

namespace Sentrel {

/// A command that has a handler.
struct VXCommandImpl::Route {
    CommandId id;
    const char* name;
    int level; ///< of the line about its arrival
    void (VXCommandImpl::*handler)(HVB::CommandData& data);
};

const VXCommandImpl::Route* VXCommandImpl::routeOf(int commandId) {
    static constexpr Route routes[] = {
        {ST_SET_PREFS, "ST_SET_PREFS", 1, &VXCommandImpl::handleSetPrefs},
        {ST_GET_PREFS, "ST_GET_PREFS", 2, &VXCommandImpl::handleGetPrefs},
        {ST_SET_PREFS_INDIVIDUAL, "ST_SET_PREFS_INDIVIDUAL", 1, &VXCommandImpl::handleSetPrefIndividual},
        {ST_GET_PREFS_INDIVIDUAL, "ST_GET_PREFS_INDIVIDUAL", 2, &VXCommandImpl::handleGetPrefIndividual},
        {ST_RESET_PREFS, "ST_RESET_PREFS", 1, &VXCommandImpl::handleResetPrefs},
        {CMD_DASH_BOARD_REQUEST, "CMD_DASH_BOARD_REQUEST", 1, &VXCommandImpl::handleDashBoard},
        {CMD_ABOUT_BOX_REQUEST, "CMD_ABOUT_BOX_REQUEST", 1, &VXCommandImpl::handleAboutBox},
        {CMD_SET_DEBUG_LOGGING_STATUS, "CMD_SET_DEBUG_LOGGING_STATUS", 1, &VXCommandImpl::handleSetDebugLoggingStatus},
        {CMD_GET_DEBUG_LOGGING_STATUS, "CMD_GET_DEBUG_LOGGING_STATUS", 1, &VXCommandImpl::handleGetDebugLoggingStatus},
    };
    for (const Route& route : routes) {
        if (route.id == commandId) {
            return &route;
        }
    }
    return nullptr;
}

VXCommandImpl::VXCommandImpl() {
    ST_TRACE(stCmdFlow, 5, L"VXCommandImpl::VXCommandImpl\n");
}

VXCommandImpl::~VXCommandImpl() {
    ST_TRACE(stCmdFlow, 5, L"VXCommandImpl::~VXCommandImpl\n");
}

bool VXCommandImpl::handleCommand(HVB::CommandData& data) {
    ST_TRACE(stCmdFlow, 3, L"VXCommandImpl::handleCommand - Recieved command with id %d\n", data.m_commandId);
    const Route* route = routeOf(data.m_commandId);
    if (route == nullptr) {
        ST_TRACE(stCmdFlow, 1, L"VXCommandImpl::handleCommand - Recieved unrecognised Command\n");
        return false;
    }
    ST_TRACE(stCmdFlow, route->level, L"VXCommandImpl::handleCommand - Recieved %s command\n", route->name);
    (this->*route->handler)(data);
    return true;
}

void VXCommandImpl::handleCommandResponse(HVB::CommandResult& /*result*/) {
    ST_TRACE(stCmdFlow, 1, L"VXCommandImpl::handleCommandResponse -Entered.\n");
}

void VXCommandImpl::sendCommandError(HVB::CommandData& data, STError error) {
    ST_TRACE(stCmdFlow, 2, L"VXCommandImpl::sendCommandError- Entered\n");
    detail::replyWith(data, static_cast<int>(error), false);
    ST_TRACE(stCmdFlow, 3, L"VXCommandImpl::sendCommandError - Sent response through HVBCommBroker\n");
}

} // namespace Sentrel
