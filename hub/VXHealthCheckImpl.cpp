#include "hub/VXHealthCheckImpl.h"

#include "daemon/Trace.h"
#include "daemon/VXControllerDaemon.h"
#include "managed/VXHVBAgentWrapper.h"

namespace Sentrel {

VXHealthCheckImpl::VXHealthCheckImpl() {
    ST_TRACE(hcFlow, 2, L"VXHealthCheckImpl::VXHealthCheckImpl - Object created\n");
}

VXHealthCheckImpl::~VXHealthCheckImpl() {
    ST_TRACE(hcFlow, 2, L"VXHealthCheckImpl::~VXHealthCheckImpl - Object destroyed\n");
}

bool VXHealthCheckImpl::handleHealthCheck() {
    ST_TRACE(hcFlow, 5, L"VXHealthCheckImpl::handleHealthCheck - Entered\n");
    VXHVBAgentWrapper* wrapper = VXController::getInstance()->agentWrapper();
    if (wrapper != nullptr) {
        wrapper->updateManagedStatus();
    }
    ST_TRACE(hcFlow, 5, L"VXHealthCheckImpl::handleHealthCheck - Exiting\n");
    return true;
}

} // namespace Sentrel
