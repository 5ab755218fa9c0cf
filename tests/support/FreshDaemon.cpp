// Linked into the unit programs that hold the daemon: its singletons and its stop flag are as at a start of the
// process.
#include "daemon/VXControllerDaemon.h"
#include "daemon/VXLoadTraceValues.h"
#include "events/STEventServer.h"
#include "managed/VXHVBAgentWrapper.h"
#include "tests/support/FreshStart.h"

#include <boost/thread/lock_guard.hpp>

#include <atomic>

namespace testing_support {
namespace {

/// The flag that ends the event server's loop. It is set for good when a server ends, as a process serves once. An
/// explicit instantiation may name a private member, so the daemon need not know of this.
std::atomic<bool>& stopFlag();

template <std::atomic<bool>* Flag>
struct StopFlag {
    friend std::atomic<bool>& stopFlag() { return *Flag; }
};

template struct StopFlag<&Sentrel::STEventServer::m_stop>;

void makeDaemonFresh() {
    // In the controller's own order, for a test that made one of them without it.
    Sentrel::STEventServer::releaseInstance();
    stopFlag() = false;
    Sentrel::VXHVBAgentWrapper::releaseInstance();
    Sentrel::VXLoadTraceValues::releaseInstance();
    Sentrel::VXController::releaseInstance();
    const boost::lock_guard<boost::mutex> lock(Sentrel::m_mutex);
    Sentrel::gShouldTerminate = false;
}

[[maybe_unused]] const bool registered = [] {
    startEachTestWith(makeDaemonFresh);
    return true;
}();

} // namespace
} // namespace testing_support
