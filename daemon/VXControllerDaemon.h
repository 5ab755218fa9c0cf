// The spine of the process: what is started and stopped, in which order, and what the three signals do.
#pragma once

#include "hub/Payloads.h"
#include "hub/VXHealthCheckImpl.h"

#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>

#include <atomic>
#include <cstdint>
#include <map>
#include <vector>

namespace Sentrel {

class SignalHold;
class VXCommandImpl;
class VXHVBAgentWrapper;

// The main thread sleeps on m_condition until gShouldTerminate, which m_mutex guards. The SIGTERM handler sets it.
extern boost::mutex m_mutex;
extern boost::condition_variable m_condition;
extern bool gShouldTerminate;

/// The daemon's controller: owns the order of start and stop, the PID file and the connection to the hub.
/// Threads: main is the main thread's; the handlers run on whichever thread takes the signal; the rest is plain.
/// Owner: a singleton, created and released by main.
class VXController {
public:
    /// The whole life of the daemon. Arguments are ignored.
    /// @return -1 when another start is at the PID file right now, 0 otherwise, also after a failure.
    // NOLINTNEXTLINE(bugprone-exception-escape): a member, not the program's main
    static std::int32_t main(int argc, char** argv);

    static VXController* getInstance();
    static void releaseInstance();

    /// Releases the event server, the agent wrapper and the trace loader, in that order.
    virtual ~VXController();
    VXController(const VXController&) = delete;
    VXController& operator=(const VXController&) = delete;

    /// Connects the daemon to the hub as module 7, with its receivers and its two subscriptions.
    /// @throws HVB::HVBException when there is no hub.
    void startHVB(VXCommandImpl& commandImpl);
    /// Ends the connection: no callback runs any more when this returns.
    void stopHVB();

    /// Refuses (false) when another process holds the PID file's lock at this instant; otherwise writes our pid. The
    /// lock ends with this call: it is a check at one instant, so a later start passes it and overwrites the pid.
    bool createPidFile();
    /// Removes the PID file, whoever wrote it.
    void removePidFile();

    // Signal handlers. Each traces its entry, and does nothing else for a signal that is not its own.
    static void terminationHandler(int signal);  ///< SIGTERM: stops the daemon
    static void reloadHandler(int signal);       ///< SIGHUP: re-reads the trace levels and ends tracing
    static void pluginChangeHandler(int signal); ///< SIGUSR2: reloads the agent plug-ins

    // What the subscribed hub events carry. Neither throws: what goes wrong becomes a trace line.
    /// Switches debug logging when this module's entry differs from the current state. Entries of other modules are
    /// passed over.
    void handleDebugLogEventData(std::map<int, bool>& statusByModule);
    /// Stores each proxy in turn, so that the last one stays.
    void handleProxySettingsEventData(std::vector<proxySettings> proxies);

    /// The agent wrapper; null until it exists. It makes itself known before it loads its plug-ins: a policy that is in
    /// store is enforced, on a thread of the library, before its construction has ended.
    VXHVBAgentWrapper* agentWrapper() const { return m_pAgentWrapper; }
    void setAgentWrapper(VXHVBAgentWrapper* wrapper) { m_pAgentWrapper = wrapper; }
    /// The module's enable state as the central policy last set it.
    bool policyEnabled() const { return m_bPolicyEnabled; }
    void setPolicyEnabled(bool enabled) { m_bPolicyEnabled = enabled; }

private:
    VXController() = default;

    static void installHandlers();
    static bool run(const SignalHold& signals);
    static void openTrace(const SignalHold& signals);
    void startAgentWrapper();

    // Plain values, single writer.
    bool m_bTerminating = false; // nothing reads it; gShouldTerminate stops the daemon
    VXHealthCheckImpl m_healthCheck;
    std::int32_t m_pidFileFd = -1;
    std::atomic<VXHVBAgentWrapper*> m_pAgentWrapper{nullptr}; // not owned
    std::atomic<bool> m_bPolicyEnabled{false};

    static VXController* m_pSelf;
    static boost::mutex m_instanceMutex;
};

} // namespace Sentrel
