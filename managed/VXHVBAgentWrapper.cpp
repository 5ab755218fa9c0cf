#include "managed/VXHVBAgentWrapper.h"

#include "base/Singleton.h"
#include "daemon/Trace.h"
#include "daemon/VXControllerDaemon.h"
#include "managed/VXPolicyEnforcementImpl.h"
#include "managed/VXPropertyCollectionImpl.h"

#include <memory>

namespace Sentrel {

VXHVBAgentWrapper* VXHVBAgentWrapper::m_pSelf = nullptr;
boost::mutex VXHVBAgentWrapper::m_instanceMutex;

namespace {

constexpr const char* kModuleSoftwareId = "NODE_ST_1070UNIX";
constexpr const char* kAgentSoftwareId = "MGSAGENT3700UNIX";
constexpr int kManagedStatus = 0; // the information id that tells whether the machine is managed
constexpr int kPasswordMessage = 3;

} // namespace

VXHVBAgentWrapper* VXHVBAgentWrapper::getInstance() {
    ST_TRACE(mgsFlow, 5, L"VXHVBAgentWrapper::getInstance - Entered\n");
    return instanceOf(m_pSelf, m_instanceMutex, [] { return new VXHVBAgentWrapper; });
}

void VXHVBAgentWrapper::releaseInstance() {
    ST_TRACE(mgsFlow, 5, L"VXHVBAgentWrapper::releaseInstance - Entered\n");
    releaseInstanceOf(m_pSelf, m_instanceMutex);
}

VXHVBAgentWrapper::VXHVBAgentWrapper() {
    ST_TRACE(mgsFlow, 5, L"VXHVBAgentWrapper::VXHVBAgentWrapper - Entered\n");
    VXController::getInstance()->setAgentWrapper(this); // a policy may be enforced before this constructor ends
    try {
        loadOAPlugins();
    } catch (...) {
        unloadOAPlugins(); // first: a service that was registered already may be looking for this
        VXController::getInstance()->setAgentWrapper(nullptr);
        throw;
    }
}

VXHVBAgentWrapper::~VXHVBAgentWrapper() {
    ST_TRACE(mgsFlow, 5, L"VXHVBAgentWrapper::~VXHVBAgentWrapper - Entered\n");
    unloadOAPlugins();
}

void VXHVBAgentWrapper::loadOAPlugins() {
    ST_TRACE(mgsFlow, 5, L"VXHVBAgentWrapper::loadOAPlugins - Entered\n");
    m_pAgent = HVBEnterprise::MsgBusEnterpriseAgent::createInstance(kModuleSoftwareId, kAgentSoftwareId, agentLogger,
                                                                    HVBEnterprise::AGENT_ALL_SERVICES);
    HVBEnterprise::MsgBusEnterpriseAgent* agent = m_pAgent;
    // An agent that refuses the properties never enforces a policy here.
    if (agent == nullptr || !agent->registerPropertyCollectionService(std::make_unique<VXPropertyCollectionImpl>())) {
        return;
    }
    agent->registerPolicyEnforcementService(std::make_unique<VXPolicyEnforcementImpl>());
}

void VXHVBAgentWrapper::unloadOAPlugins() {
    ST_TRACE(mgsFlow, 5, L"VXHVBAgentWrapper::unloadOAPlugins - Entered\n");
    if (HVBEnterprise::MsgBusEnterpriseAgent* agent = m_pAgent; agent != nullptr) {
        agent->releaseInstance();
    }
}

void VXHVBAgentWrapper::reloadOAPlugins() {
    ST_TRACE(mgsFlow, 5, L"VXHVBAgentWrapper::reloadOAPlugins - Entered\n");
    unloadOAPlugins();
    loadOAPlugins();
}

void VXHVBAgentWrapper::updateManagedStatus() {
    ST_TRACE(mgsFlow, 5, L"VXHVBAgentWrapper::updateManagedStatus - Entered\n");
    std::wstring wideAnswer;
    std::string answer;
    HVBEnterprise::MsgBusEnterpriseAgent* agent = m_pAgent;
    if (agent != nullptr && agent->getAgentInformation(kManagedStatus, wideAnswer)) {
        answer = HVBEnterprise::HvbAgentUtils::wstringToString(wideAnswer);
    }
    if (answer == "1" || answer == "2") {
        m_bManaged = true;
        ST_TRACE(mgsFlow, 5, L"VXHVBAgentWrapper - Product is in managed mode\n");
    } else {
        m_bManaged = false;
        m_bPolicyReceived = false;
        ST_TRACE(mgsFlow, 5, L"VXHVBAgentWrapper - Product is in unmanaged mode\n");
    }
}

std::string VXHVBAgentWrapper::decrpytPass(std::string encPass) {
    ST_TRACE(mgsFlow, 5, L"VXHVBAgentWrapper::decrpytPass - Entered\n");
    std::string clearText;
    HVBEnterprise::MsgBusEnterpriseAgent* agent = m_pAgent;
    if (agent == nullptr) {
        return clearText;
    }
    try {
        agent->decryptMessage(encPass, kPasswordMessage, clearText);
    } catch (...) {
        ST_TRACE(mgsFlow, 5, L"VXHVBAgentWrapper - Exception caught in decrpytPass\n");
    }
    return clearText;
}

void VXHVBAgentWrapper::agentLogger(HVBEnterprise::AgentLogCategory category, const wchar_t* text) {
    const int level = category == HVBEnterprise::AGENT_LOG_WARNING       ? 2
                      : category == HVBEnterprise::AGENT_LOG_INFORMATION ? 4
                      : category == HVBEnterprise::AGENT_LOG_DEBUG       ? 5
                                                                         : 1;
    ST_TRACE(mgsFlow, level, L"%s\n", trace::printable(HVBEnterprise::HvbAgentUtils::wstringToString(text)).c_str());
}

} // namespace Sentrel
