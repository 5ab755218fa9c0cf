// A management agent that a test scripts: the class MsgBusEnterpriseAgent in place of platform/hvbagent. It answers,
// throws, is absent and counts. A client that was released is freed, so that the sanitizers see any later use.
#pragma once

#include "platform/hvbagent/MsgBusEnterpriseAgent.h"

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace testing_support {

/// Threads: createInstance on any; the rest the test's. Owner: one a process, fresh for each test.
struct AgentDouble {
    static AgentDouble& instance();

    bool present = true;                     ///< false: createInstance gives null
    std::function<void()> beforeCreate;      ///< what it throws leaves createInstance
    std::function<void()> beforeEnforcement; ///< what it throws leaves registerPolicyEnforcementService
    bool answers = true;                     ///< what getAgentInformation returns
    std::optional<std::wstring> answer;      ///< what it writes, also when it returns false
    std::function<void(const std::string& message, std::string& clearText)> decrypt; ///< it may throw
    bool takesProperties = true; ///< false: the service is refused and stays with its caller
    std::unique_ptr<HVBEnterprise::IAgentPropertyCollection> properties; ///< what was registered last
    std::unique_ptr<HVBEnterprise::IAgentPolicyEnforcement> enforcement;

    /// Each call with its plain arguments, as in "createInstance A B 8191".
    std::vector<std::string> calls();
    void add(std::string call);

    HVBEnterprise::AgentLogger logger = nullptr; ///< what createInstance was given
    int clients = 0;                             ///< created and not released

private:
    std::mutex m_mutex;
    std::vector<std::string> m_calls;
};

} // namespace testing_support
