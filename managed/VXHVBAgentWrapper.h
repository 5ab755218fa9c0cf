// The daemon's one connection to the management agent.
#pragma once

#include "platform/hvbagent/MsgBusEnterpriseAgent.h"

#include <boost/thread/mutex.hpp>

#include <atomic>
#include <string>

namespace Sentrel {

/// Holds the agent library's client, keeps the managed status and offers the library's decryption. A machine without
/// an agent is served with its local preferences; nothing is reported then.
/// Threads: every operation on any thread, without a lock; the flags are single bytes, written and read plainly.
/// reloadOAPlugins runs on the thread that takes SIGUSR2.
/// Owner: a singleton, created by VXController::main and released by the controller's destructor.
class VXHVBAgentWrapper {
public:
    /// Requires that the process's controller exists, whose end releases this.
    static VXHVBAgentWrapper* getInstance();
    static void releaseInstance();
    virtual ~VXHVBAgentWrapper();
    VXHVBAgentWrapper(const VXHVBAgentWrapper&) = delete;
    VXHVBAgentWrapper& operator=(const VXHVBAgentWrapper&) = delete;

    /// Gets the client and registers the module's two services with it, the properties first.
    void loadOAPlugins();
    void unloadOAPlugins();
    void reloadOAPlugins();

    /// Asks the agent whether the machine is managed. A failed question, and no agent, count as unmanaged.
    void updateManagedStatus();

    /// The clear text of @p encPass; empty without an agent, and what the library had written when it threw.
    std::string decrpytPass(std::string encPass);

    /// Carries the agent library's log lines into the trace log.
    static void agentLogger(HVBEnterprise::AgentLogCategory category, const wchar_t* text);

    bool managed() const { return m_bManaged; }
    bool managedKnown() const { return m_bManagedKnown; }
    bool policyReceived() const { return m_bPolicyReceived; }
    void setPolicyReceived() { m_bPolicyReceived = true; }

private:
    VXHVBAgentWrapper();

    // Read and written on any thread, without a lock.
    std::atomic<HVBEnterprise::MsgBusEnterpriseAgent*> m_pAgent{nullptr}; // the library's
    std::atomic<bool> m_bManaged{false};
    std::atomic<bool> m_bManagedKnown{false}; // never set, so that every dashboard request refreshes the status
    std::atomic<bool> m_bPolicyReceived{false};

    static VXHVBAgentWrapper* m_pSelf;
    static boost::mutex m_instanceMutex;
};

} // namespace Sentrel
