// The handle that modules hold is one object for the life of the process, and never freed: a module's threads go on
// using the pointer while another one releases the client. Behind it is a shared pointer to the client. An operation
// copies that pointer under a lock and then works with the copy without the lock. A release takes the pointer away and
// then ends the client, so a late operation finds either nothing or a client that has ended and refuses.
#include "platform/hvbagent/MsgBusEnterpriseAgent.h"

#include "base/Mutex.h"
#include "base/Paths.h"
#include "platform/hvbagent/AgentClient.h"
#include "platform/hvbagent/AgentConfiguration.h"
#include "platform/hvbagent/AgentLog.h"
#include "platform/hvbagent/AgentWorker.h"
#include "platform/hvbagent/SecretBox.h"

#include <exception>
#include <stdexcept>
#include <utility>

namespace HVBEnterprise {
namespace {

using agent::AgentClient;
using agent::AgentLog;

/// The client behind the handle.
/// Threads: thread-safe. Owner: the process.
class CurrentClient {
public:
    std::shared_ptr<AgentClient> get() {
        const Sentrel::MutexLock lock(m_mutex);
        return m_client;
    }

    /// Ends the present client, then begins @p next if there is one. One caller at a time.
    void replace(std::shared_ptr<AgentClient> next) {
        const Sentrel::MutexLock oneAtATime(m_replacing);
        if (const std::shared_ptr<AgentClient> last = exchange(nullptr); last != nullptr) {
            last->end();
        }
        if (next != nullptr) {
            next->begin();
            exchange(std::move(next));
        }
    }

private:
    std::shared_ptr<AgentClient> exchange(std::shared_ptr<AgentClient> next) {
        const Sentrel::MutexLock lock(m_mutex);
        return std::exchange(m_client, std::move(next));
    }

    Sentrel::Mutex m_replacing; // taken before m_mutex
    Sentrel::Mutex m_mutex;
    std::shared_ptr<AgentClient> m_client SENTREL_GUARDED_BY(m_mutex);
};

CurrentClient& currentClient() {
    static auto* const client = new CurrentClient; // never freed, as the handle
    return *client;
}

template <class Service>
bool registerWith(std::unique_ptr<Service>& service) {
    const std::shared_ptr<AgentClient> client = currentClient().get();
    return client != nullptr && client->take(service);
}

std::shared_ptr<AgentClient> makeClient(const std::string& moduleId, const std::shared_ptr<AgentLog>& log) {
    std::optional<agent::AgentConfiguration> configuration =
        agent::loadAgentConfiguration(Sentrel::paths::agentConfiguration());
    if (!configuration) {
        return nullptr;
    }
    const agent::PolicyFiles files{Sentrel::paths::agentPolicy(), Sentrel::paths::agentPolicyRecord()};
    return std::make_shared<AgentClient>(std::move(*configuration), moduleId, files, log);
}

} // namespace

MsgBusEnterpriseAgent* MsgBusEnterpriseAgent::createInstance(const std::string& moduleId,
                                                             const std::string& /*agentId*/, AgentLogger logger,
                                                             RqdMsgBusEnterpriseAgentImpl /*services*/) {
    static auto* const handle = new MsgBusEnterpriseAgent;
    const auto log = std::make_shared<AgentLog>(logger);
    try {
        const std::shared_ptr<AgentClient> client = makeClient(moduleId, log);
        currentClient().replace(client);
        return client != nullptr ? handle : nullptr;
    } catch (const std::exception& error) {
        log->error(std::string("this machine is not managed: ") + error.what());
        currentClient().replace(nullptr);
        return nullptr;
    }
}

bool MsgBusEnterpriseAgent::registerPropertyCollectionService(std::unique_ptr<IAgentPropertyCollection>&& service) {
    return registerWith(service);
}

bool MsgBusEnterpriseAgent::registerPolicyEnforcementService(std::unique_ptr<IAgentPolicyEnforcement>&& service) {
    return registerWith(service);
}

bool MsgBusEnterpriseAgent::getAgentInformation(const int& informationId, std::wstring& answer) {
    if (informationId != 0) {
        return false;
    }
    const std::shared_ptr<AgentClient> client = currentClient().get();
    if (client == nullptr) {
        answer = L"0";
    } else {
        answer = client->isConnected() ? L"1" : L"2";
    }
    return true;
}

void MsgBusEnterpriseAgent::decryptMessage(std::string& message, int kind, std::string& clearText) {
    constexpr int passwords = 3;
    if (kind != passwords) {
        throw std::runtime_error("there is no key of kind " + std::to_string(kind));
    }
    if (currentClient().get() == nullptr) {
        throw std::runtime_error("the agent's client has been released");
    }
    clearText = agent::decrypted(agent::SecretKey::load(Sentrel::paths::agentKey()), message);
}

void MsgBusEnterpriseAgent::releaseInstance() {
    if (agent::AgentWorker::isWorker()) {
        throw std::logic_error("a service must not release the client that calls it");
    }
    currentClient().replace(nullptr);
}

} // namespace HVBEnterprise
