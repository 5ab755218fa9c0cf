#include "daemon/VXControllerDaemon.h"

#include "base/Paths.h"
#include "base/Singleton.h"
#include "daemon/SignalGate.h"
#include "daemon/Trace.h"
#include "daemon/VXLoadTraceValues.h"
#include "events/STEventServer.h"
#include "hub/HVBCommBroker.h"
#include "hub/VXCommandImpl.h"
#include "managed/VXHVBAgentWrapper.h"

#include <boost/thread/lock_guard.hpp>

#include <cerrno>
#include <csignal>

namespace Sentrel {

boost::mutex m_mutex;
boost::condition_variable m_condition;
bool gShouldTerminate = false;

VXController* VXController::m_pSelf = nullptr;
boost::mutex VXController::m_instanceMutex;

namespace {

/// Runs a handler's work. The other two signals wait until it is done, the interrupted code gets its errno back, and no
/// exception leaves the handler.
template <class Work>
void inHandler(Work work) {
    const int savedErrno = errno;
    {
        const SignalHold hold;
        try {
            work();
        } catch (...) {
            // There is nobody to tell: a handler has no caller.
        }
    }
    errno = savedErrno;
}

void stopDelivery() {
    try {
        HVB::HVBCommBroker::getInstance(paths::hubSocket())->stop();
    } catch (...) {
        // The daemon must stop also when the hub cannot be told.
    }
}

} // namespace

VXController* VXController::getInstance() {
    return instanceOf(m_pSelf, m_instanceMutex, [] { return new VXController; });
}

void VXController::releaseInstance() {
    releaseInstanceOf(m_pSelf, m_instanceMutex);
}

VXController::~VXController() {
    try {
        STEventServer::releaseInstance();
        VXHVBAgentWrapper::releaseInstance();
        VXLoadTraceValues::releaseInstance();
    } catch (...) {
        ST_TRACE(stDaemonFlow, 2, L"Exception in VXController::~VXController\n");
    }
}

void VXController::startHVB(VXCommandImpl& commandImpl) {
    ST_TRACE(stDaemonFlow, 2, L"VXController::startHVB - Entered\n");
    HVB::HVBCommBroker* broker = HVB::HVBCommBroker::getInstance(paths::hubSocket());
    broker->setHVId(HVB::MODULE_SENTREL);
    broker->setCommandInterface(&commandImpl);
    broker->setHealthCheckInterface(&m_healthCheck);
    broker->start(true);
    HVB::EventData debugLogChange(EVT_DEBUG_LOG_CHANGE);
    broker->subscribeForEvent(debugLogChange);
    HVB::EventData proxySettingsChange(EVT_PROXY_SETTINGS_CHANGE);
    broker->subscribeForEvent(proxySettingsChange);
    ST_TRACE(stDaemonFlow, 5, L"VXController::startHVB - Exiting\n");
}

void VXController::stopHVB() {
    HVB::HVBCommBroker::releaseInstance();
}

void VXController::terminationHandler(int signal) {
    inHandler([signal] {
        ST_TRACE(stDaemonFlow, 3, L" terminationHandler - Recieved sigterm. Going down\n");
        if (signal != SIGTERM) {
            return;
        }
        stopDelivery();
        getInstance()->m_bTerminating = true;
        const boost::lock_guard<boost::mutex> lock(m_mutex);
        gShouldTerminate = true;
        m_condition.notify_one();
    });
}

void VXController::reloadHandler(int signal) {
    inHandler([signal] {
        if (signal != SIGHUP) {
            return;
        }
        // Nothing opens the log again: tracing is over until the next start.
        trace::closeTraceLog();
        VXLoadTraceValues::getInstance()->loadTraceValues(paths::traceLevels());
        ST_TRACE(stDaemonFlow, 3, L"VXController::reloadHandler SIGHUP recieved\n");
    });
}

void VXController::pluginChangeHandler(int signal) {
    inHandler([signal] {
        ST_TRACE(stDaemonFlow, 2,
                 L"VXController::pluginChangeHandler entered with Signal %d -> refer Signal.h for signal details\n",
                 signal);
        if (signal != SIGUSR2) {
            return;
        }
        VXHVBAgentWrapper* wrapper = getInstance()->m_pAgentWrapper;
        if (wrapper != nullptr) {
            ST_TRACE(stDaemonFlow, 1, L"SIGUSR2 signal received\n");
            wrapper->reloadOAPlugins();
        }
    });
}

} // namespace Sentrel
