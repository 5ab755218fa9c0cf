#include "hub/VXCommandImpl.h"

#include "daemon/Trace.h"
#include "hub/CommandReply.h"

namespace Sentrel {

/// A command that has a handler.
struct VXCommandImpl::Route {
    CommandId id;
    int level; ///< of the line about its arrival
    const char* name;
    void (VXCommandImpl::*handler)(HVB::CommandData& data);
};

const VXCommandImpl::Route* VXCommandImpl::routeOf(int commandId) {
    static constexpr Route routes[] = {
        {ST_SET_PREFS, 1, "ST_SET_PREFS", &VXCommandImpl::handleSetPrefs},
        {ST_GET_PREFS, 2, "ST_GET_PREFS", &VXCommandImpl::handleGetPrefs},
        {ST_SET_PREFS_INDIVIDUAL, 1, "ST_SET_PREFS_INDIVIDUAL", &VXCommandImpl::handleSetPrefIndividual},
        {ST_GET_PREFS_INDIVIDUAL, 2, "ST_GET_PREFS_INDIVIDUAL", &VXCommandImpl::handleGetPrefIndividual},
        {ST_RESET_PREFS, 1, "ST_RESET_PREFS", &VXCommandImpl::handleResetPrefs},
        {CMD_DASH_BOARD_REQUEST, 1, "CMD_DASH_BOARD_REQUEST", &VXCommandImpl::handleDashBoard},
        {CMD_ABOUT_BOX_REQUEST, 1, "CMD_ABOUT_BOX_REQUEST", &VXCommandImpl::handleAboutBox},
        {CMD_SET_DEBUG_LOGGING_STATUS, 1, "CMD_SET_DEBUG_LOGGING_STATUS", &VXCommandImpl::handleSetDebugLoggingStatus},
        {CMD_GET_DEBUG_LOGGING_STATUS, 1, "CMD_GET_DEBUG_LOGGING_STATUS", &VXCommandImpl::handleGetDebugLoggingStatus},
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
