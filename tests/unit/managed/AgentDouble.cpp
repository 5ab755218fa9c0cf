#include "tests/unit/managed/AgentDouble.h"

#include "tests/support/FreshStart.h"

namespace testing_support {

AgentDouble& AgentDouble::instance() {
    return freshForEachTest<AgentDouble>();
}

std::vector<std::string> AgentDouble::calls() {
    const std::lock_guard lock(m_mutex);
    return m_calls;
}

void AgentDouble::add(std::string call) {
    const std::lock_guard lock(m_mutex);
    m_calls.push_back(std::move(call));
}

} // namespace testing_support

using testing_support::AgentDouble;

namespace HVBEnterprise {

MsgBusEnterpriseAgent* MsgBusEnterpriseAgent::createInstance(const std::string& moduleId, const std::string& agentId,
                                                             AgentLogger logger,
                                                             RqdMsgBusEnterpriseAgentImpl services) {
    AgentDouble& agent = AgentDouble::instance();
    agent.add("createInstance " + moduleId + " " + agentId + " " + std::to_string(services));
    agent.logger = logger;
    if (agent.beforeCreate) {
        agent.beforeCreate();
    }
    if (!agent.present) {
        return nullptr;
    }
    ++agent.clients;
    return new MsgBusEnterpriseAgent;
}

bool MsgBusEnterpriseAgent::registerPropertyCollectionService(std::unique_ptr<IAgentPropertyCollection>&& service) {
    AgentDouble& agent = AgentDouble::instance();
    agent.add("registerPropertyCollectionService");
    if (agent.takesProperties) {
        agent.properties = std::move(service);
    }
    return agent.takesProperties;
}

bool MsgBusEnterpriseAgent::registerPolicyEnforcementService(std::unique_ptr<IAgentPolicyEnforcement>&& service) {
    AgentDouble& agent = AgentDouble::instance();
    agent.add("registerPolicyEnforcementService");
    if (agent.beforeEnforcement) {
        agent.beforeEnforcement();
    }
    agent.enforcement = std::move(service);
    return true;
}

bool MsgBusEnterpriseAgent::getAgentInformation(const int& informationId, std::wstring& answer) {
    AgentDouble& agent = AgentDouble::instance();
    agent.add("getAgentInformation " + std::to_string(informationId));
    if (agent.answer) {
        answer = *agent.answer;
    }
    return agent.answers;
}

void MsgBusEnterpriseAgent::decryptMessage(std::string& message, int kind, std::string& clearText) {
    AgentDouble& agent = AgentDouble::instance();
    agent.add("decryptMessage " + message + " " + std::to_string(kind));
    if (agent.decrypt) {
        agent.decrypt(message, clearText);
    }
}

void MsgBusEnterpriseAgent::releaseInstance() {
    AgentDouble::instance().add("releaseInstance");
    AgentDouble::instance().properties.reset();
    AgentDouble::instance().enforcement.reset();
    --AgentDouble::instance().clients;
    delete this;
}

std::string HvbAgentUtils::wstringToString(const std::wstring& text) {
    std::string narrow;
    for (const wchar_t c : text) {
        narrow += static_cast<char>(c); // the tests here pass single bytes
    }
    return narrow;
}

} // namespace HVBEnterprise
