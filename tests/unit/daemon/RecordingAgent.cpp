#include "tests/unit/daemon/RecordingAgent.h"

#include "platform/hvbagent/MsgBusEnterpriseAgent.h"
#include "tests/support/FreshStart.h"

namespace testing_support {

RecordingAgent& RecordingAgent::instance() {
    return freshForEachTest<RecordingAgent>();
}

std::vector<std::string> RecordingAgent::calls() {
    const std::lock_guard lock(m_mutex);
    return m_calls;
}

void RecordingAgent::add(const std::string& call) {
    {
        const std::lock_guard lock(m_mutex);
        m_calls.push_back(call);
    }
    if (before) {
        before(call);
    }
}

} // namespace testing_support

using testing_support::RecordingAgent;

namespace HVBEnterprise {

MsgBusEnterpriseAgent* MsgBusEnterpriseAgent::createInstance(const std::string& /*moduleId*/,
                                                             const std::string& /*agentId*/, AgentLogger /*logger*/,
                                                             RqdMsgBusEnterpriseAgentImpl /*services*/) {
    static MsgBusEnterpriseAgent client;
    RecordingAgent::instance().add("createInstance");
    return RecordingAgent::instance().present ? &client : nullptr;
}

bool MsgBusEnterpriseAgent::registerPropertyCollectionService(std::unique_ptr<IAgentPropertyCollection>&& /*service*/) {
    return false; // so that no policy service is made: what they do is tested with their own doubles
}

bool MsgBusEnterpriseAgent::registerPolicyEnforcementService(std::unique_ptr<IAgentPolicyEnforcement>&& /*service*/) {
    return false;
}

bool MsgBusEnterpriseAgent::getAgentInformation(const int& /*informationId*/, std::wstring& answer) {
    RecordingAgent::instance().add("getAgentInformation");
    answer = RecordingAgent::instance().status;
    return true;
}

void MsgBusEnterpriseAgent::decryptMessage(std::string& message, int /*kind*/, std::string& clearText) {
    RecordingAgent::instance().add("decryptMessage " + message);
    clearText = RecordingAgent::instance().decrypt(message);
}

void MsgBusEnterpriseAgent::releaseInstance() {
    RecordingAgent::instance().add("releaseInstance");
}

std::string HvbAgentUtils::wstringToString(const std::wstring& text) {
    std::string out;
    for (const wchar_t c : text) {
        out += static_cast<char>(c);
    }
    return out;
}

} // namespace HVBEnterprise
