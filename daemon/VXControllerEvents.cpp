// What the hub's events push to this module.
#include "daemon/Trace.h"
#include "daemon/VXControllerDaemon.h"
#include "hub/Exceptions.h"
#include "hub/HubIds.h"
#include "store/STPreferenceController.h"

namespace Sentrel {
namespace {

/// Runs a handler's work; an exception becomes its trace line.
template <class Work>
void guarded(const char* handler, Work work) {
    try {
        work();
    } catch (const VXException& exception) {
        ST_TRACE(stDaemonFlow, 1, L" VXController::%s - Got exception %s.\n", handler,
                 trace::printable(exception.message()).c_str());
    } catch (...) {
        ST_TRACE(stDaemonFlow, 1, L"VXController::%s - Caught unknown exception\n", handler);
    }
}

void switchDebugLogging(bool wanted) {
    const bool current = STPreferenceController::getInstance()->getDebugLoggingStatus();
    ST_TRACE(stDaemonFlow, 3, L"OldStatus = %s, NewStatus = %s\n", current ? "ON" : "OFF", wanted ? "ON" : "OFF");
    if (wanted == current) {
        return;
    }
    ST_TRACE(stDaemonFlow, 4,
             L"VXController::handleDebugLogEventData LogLevel changed so would need to update preference\n");
    STPreferenceController::getInstance()->setDebugLoggingStatus(wanted);
}

} // namespace

void VXController::handleDebugLogEventData(std::map<int, bool>& statusByModule) {
    guarded("handleDebugLogEventData", [&statusByModule] {
        ST_TRACE(stDaemonFlow, 2, L"VXController::handleDebugLogEventData entered - Event Notification Handler\n");
        for (const auto& [module, status] : statusByModule) {
            ST_TRACE(stDaemonFlow, 5, L"Iterating HV ID %d\n", module);
            if (module == HVB::MODULE_SENTREL) {
                switchDebugLogging(status);
                return;
            }
        }
    });
}

// The vector is the callee's own: it outlives the event whose payload it was.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
void VXController::handleProxySettingsEventData(std::vector<proxySettings> proxies) {
    guarded("handleProxySettingsEventData", [&proxies] {
        ST_TRACE(stDaemonFlow, 2, L"VXController::handleProxySettingsEventData entered - Event Notification Handler\n");
        for (const proxySettings& proxy : proxies) {
            // A proxy that cannot be stored gets a line in the trace log, and the next ones are still tried.
            STPreferenceController::getInstance()->setRpxProxySettings(
                proxy.host.c_str(), proxy.uname.c_str(), proxy.pass.c_str(), proxy.port, proxy.type, proxy.httpAuth);
        }
    });
}

} // namespace Sentrel
