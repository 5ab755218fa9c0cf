#include "platform/hvbagent/AgentClient.h"

#include "platform/hvbagent/Encoding.h"

#include <utility>

namespace HVBEnterprise::agent {

AgentClient::AgentClient(AgentConfiguration configuration, const std::string& moduleId, const PolicyFiles& files,
                         std::shared_ptr<AgentLog> log)
    : m_log(std::move(log)), m_outbox(std::make_shared<Outbox>()) {
    WorkerSettings settings{.softwareId = wideOf(moduleId),
                            .topics = Topics(configuration.site, configuration.machine),
                            .interval = configuration.interval};
    m_worker = std::make_shared<AgentWorker>(std::move(settings), PolicyInForce(files, takerOf(configuration)),
                                             m_outbox, m_log);
    m_connection = std::make_shared<AgentConnection>(std::move(configuration), m_outbox, m_worker, m_log);
}

void AgentClient::begin() {
    m_worker->begin();
    try {
        AgentConnection::begin(m_connection);
    } catch (...) {
        m_worker->end();
        throw;
    }
}

void AgentClient::end() {
    m_worker->end(); // first, so that its last result goes out before the farewell
    m_connection->end();
    m_log->detach();
}

} // namespace HVBEnterprise::agent
