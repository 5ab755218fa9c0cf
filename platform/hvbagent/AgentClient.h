// The client of the management agent, from one creation to its release.
#pragma once

#include "platform/hvbagent/AgentConfiguration.h"
#include "platform/hvbagent/AgentConnection.h"
#include "platform/hvbagent/AgentLog.h"
#include "platform/hvbagent/AgentWorker.h"
#include "platform/hvbagent/Outbox.h"

#include <memory>
#include <string>

namespace HVBEnterprise::agent {

/// A callback thread, a network thread, and what is between them.
/// Threads: any; begin and end one at a time. Owner: the process's handle and the operations that are running.
class AgentClient {
public:
    AgentClient(AgentConfiguration configuration, const std::string& moduleId, const PolicyFiles& files,
                std::shared_ptr<AgentLog> log);
    AgentClient(const AgentClient&) = delete;
    AgentClient& operator=(const AgentClient&) = delete;

    /// Starts both threads. @throws std::system_error.
    void begin();

    /// Hands a service over. @return whether it was taken; after end it is not.
    template <class Service>
    bool take(std::unique_ptr<Service>& service) {
        return m_worker->take(service);
    }

    bool isConnected() const { return m_outbox->isConnected(); }

    /// Waits for the running call, destroys the services, says "offline" and ends the threads. Requires that no service
    /// is the caller.
    void end();

private:
    // constant after construction, own locking
    std::shared_ptr<AgentLog> m_log;
    std::shared_ptr<Outbox> m_outbox;
    std::shared_ptr<AgentWorker> m_worker;
    std::shared_ptr<AgentConnection> m_connection;
};

} // namespace HVBEnterprise::agent
