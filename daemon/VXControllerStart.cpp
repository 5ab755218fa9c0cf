// The order of start and stop. Each step runs only after the one before it has finished; signals are held back except
// at the points between steps, where no lock is held.
#include "base/Paths.h"
#include "base/SignalSet.h"
#include "daemon/SignalGate.h"
#include "daemon/Trace.h"
#include "daemon/VXControllerDaemon.h"
#include "daemon/VXLoadTraceValues.h"
#include "events/STEventServer.h"
#include "hub/Exceptions.h"
#include "hub/HVBCommBroker.h"
#include "hub/HVBEventNotificationImpl.h"
#include "hub/VXCommandImpl.h"
#include "managed/VXHVBAgentWrapper.h"

#include <boost/thread/lock_types.hpp>

#include <csignal>
#include <exception>

namespace Sentrel {
namespace {

/// When the start fails after the hub was connected, the receiver of commands and the controller are destroyed while
/// the broker lives on. No callback may run in them any more then, and none may begin.
class EndDeliveryOnUnwind {
public:
    EndDeliveryOnUnwind() = default;
    ~EndDeliveryOnUnwind() {
        if (std::uncaught_exceptions() > 0) {
            using HVB::HVBCommBroker;
            tell([](HVBCommBroker& broker) { broker.stop(); });
            // Each waits for what runs in it.
            tell([](HVBCommBroker& broker) { broker.setCommandInterface(nullptr); });
            tell([](HVBCommBroker& broker) { broker.setHealthCheckInterface(nullptr); });
            tell([](HVBCommBroker& broker) { broker.setEventInterface(nullptr); });
        }
    }
    EndDeliveryOnUnwind(const EndDeliveryOnUnwind&) = delete;
    EndDeliveryOnUnwind& operator=(const EndDeliveryOnUnwind&) = delete;

private:
    template <class Operation>
    static void tell(Operation&& operation) noexcept {
        try {
            operation(*HVB::HVBCommBroker::getInstance(paths::hubSocket()));
        } catch (...) {
            // The exception that ends the start is the one to report.
        }
    }
};

/// Makes the receiver of the hub's events. A start that fails does not delete it, since the broker still knows it. This
/// is a function of its own so that the leak check can tell the receiver from everything else that a start makes.
HVBEventNotificationImpl* makeEventReceiver() {
    return new HVBEventNotificationImpl;
}

} // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): a member, not the program's main
std::int32_t VXController::main(int /*argc*/, char** /*argv*/) {
    ST_TRACE(stDaemonFlow, 2, L"VXController::main() - Entered\n"); // the log is not open yet
    const SignalHold signals;
    installHandlers();
    try {
        if (!run(signals)) {
            return -1;
        }
    } catch (const HVB::HVBException& exception) {
        ST_TRACE(stDaemonFlow, 1, L"VXController::main - Caught HVB Exception %s\n\n",
                 trace::printable(exception.message()).c_str());
    } catch (const VXException& exception) {
        ST_TRACE(stDaemonFlow, 1, L"VXController::main - Caught VXException %s\n\n",
                 trace::printable(exception.message()).c_str());
    } catch (...) {
        ST_TRACE(stDaemonFlow, 1, L"VXController::main - Caught unknown exception\n");
    }
    signals.letIn();
    getInstance()->removePidFile();
    releaseInstance();
    ST_TRACE(stDaemonFlow, 2, L"VXController::main() - Exiting\n");
    trace::closeTraceLog();
    return 0;
}

void VXController::installHandlers() {
    ::signal(SIGTERM, terminationHandler);
    ::signal(SIGHUP, reloadHandler);
    ::signal(SIGUSR2, pluginChangeHandler);
}

void VXController::openTrace(const SignalHold& signals) {
    VXLoadTraceValues::getInstance()->loadTraceValues(paths::traceLevels());
    signals.letIn();
    if (traceInited == 0) {
        trace::openTraceLog(paths::traceLog());
    }
    signals.letIn();
}

/// SIGUSR2 is held back exactly until the handler can reach the wrapper. Threads that are started meanwhile inherit
/// that.
void VXController::startAgentWrapper() {
    const SignalsBlocked pluginChange({SIGUSR2});
    if (!pluginChange.areBlocked()) {
        ST_TRACE(stDaemonFlow, 1, L"%s - couldn't mask signal\n", "main");
    }
    ST_TRACE(stDaemonFlow, 3, L"VXController::main - Starting OA Agent Wrapper\n");
    setAgentWrapper(VXHVBAgentWrapper::getInstance());
}

bool VXController::run(const SignalHold& signals) {
    signals.letIn();
    openTrace(signals);
    VXController* controller = getInstance();
    VXCommandImpl commandImpl;
    const EndDeliveryOnUnwind endDelivery;
    HVBEventNotificationImpl* eventNotification = makeEventReceiver();
    ST_TRACE(stDaemonFlow, 3, L"VXController::main - started tracing\n");
    signals.letIn();
    if (!controller->createPidFile()) {
        // Whatever else exists stays: the file on disk is its owner's, and the process is about to end.
        // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): the broker still knows the receiver
        ST_TRACE(stDaemonFlow, 3, L"VXController::main -  Create PID file returned false. Aborting start\n");
        return false;
    }
    controller->startAgentWrapper();
    signals.letIn();
    ST_TRACE(stDaemonFlow, 3, L"VXController::main - Starting HVB\n");
    controller->startHVB(commandImpl);
    signals.letIn();
    STEventServer::getInstance()->start();
    signals.letIn();

    const SignalLanding landing;
    boost::unique_lock<boost::mutex> lock(m_mutex);
    while (!gShouldTerminate) {
        m_condition.wait(lock);
    }
    ST_TRACE(stDaemonFlow, 3, L"VXController::main - Stopping Sentrel\n");
    controller->stopHVB();
    delete eventNotification;
    ST_TRACE(stDaemonFlow, 2, L"VXController::main -removing pid file\n");
    return true;
}

} // namespace Sentrel
