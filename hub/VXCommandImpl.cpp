#include "hub/VXCommandImpl.h"

#include "daemon/Trace.h"
#include "hub/HVBMessages.h"

namespace Sentrel {

VXCommandImpl::VXCommandImpl() {
    ST_TRACE(stCmdFlow, 5, L"VXCommandImpl::VXCommandImpl\n");
}

VXCommandImpl::~VXCommandImpl() {
    ST_TRACE(stCmdFlow, 5, L"VXCommandImpl::~VXCommandImpl\n");
}

bool VXCommandImpl::handleCommand(HVB::CommandData& data) {
    ST_TRACE(stCmdFlow, 3, L"VXCommandImpl::handleCommand - Recieved command with id %d\n", data.m_commandId);
    ST_TRACE(stCmdFlow, 1, L"VXCommandImpl::handleCommand - Recieved unrecognised Command\n");
    return false;
}

void VXCommandImpl::handleCommandResponse(HVB::CommandResult& /*result*/) {
    ST_TRACE(stCmdFlow, 1, L"VXCommandImpl::handleCommandResponse -Entered.\n");
}

} // namespace Sentrel
