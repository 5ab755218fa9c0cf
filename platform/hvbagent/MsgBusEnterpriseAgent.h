// The management agent's client library, as far as the daemon needs it.
#pragma once

#include "platform/hvbagent/AgentDocuments.h"

#include <cstdint>
#include <memory>
#include <string>

namespace HVBEnterprise {

/// Kind of a line that the agent library logs.
enum AgentLogCategory : std::int32_t {
    AGENT_LOG_ERROR = 1,
    AGENT_LOG_WARNING = 2,
    AGENT_LOG_INFORMATION = 3,
    AGENT_LOG_DEBUG = 4,
};

/// Which services of the agent a client asks for, one bit each.
enum RqdMsgBusEnterpriseAgentImpl : std::uint32_t {
    AGENT_ALL_SERVICES = 0x1FFF,
};

/// Receives the library's log lines. May run on any thread of the library.
using AgentLogger = void (*)(AgentLogCategory category, const wchar_t* text);

/// The client of the management agent.
///
/// Registered services are called on a thread of the library, one call at a time. An exception of theirs is caught,
/// logged and counts as false.
/// Threads: any, also while another thread releases the client; a call that comes too late fails. releaseInstance must
/// not be called by a service.
/// Owner: the library. The pointer from createInstance stays usable for the life of the process; it stands for
/// whichever client was created last.
class MsgBusEnterpriseAgent {
public:
    /// Gives the client, or null when this machine is not enrolled: no configuration, or one that cannot be used,
    /// which is logged to syslog too. Does not wait for the server; it is reached, and reached again, in the
    /// background.
    static MsgBusEnterpriseAgent* createInstance(const std::string& moduleId, const std::string& agentId,
                                                 AgentLogger logger, RqdMsgBusEnterpriseAgentImpl services);

    /// Hands over a service. @return whether it was taken; otherwise @p service still owns it.
    bool registerPropertyCollectionService(std::unique_ptr<IAgentPropertyCollection>&& service);
    /// As above. From then on the saved policy is enforced, and those that arrive.
    bool registerPolicyEnforcementService(std::unique_ptr<IAgentPolicyEnforcement>&& service);

    /// Asks the agent about itself. Id 0: "1" enrolled and connected, "2" enrolled and not connected, "0" otherwise.
    /// @return whether @p answer was written.
    bool getAgentInformation(const int& informationId, std::wstring& answer);

    /// Deciphers @p message into @p clearText. @param kind which key: 3 is the passwords'.
    /// @throws std::runtime_error for another kind, without a key, and for a message that is not whole.
    void decryptMessage(std::string& message, int kind, std::string& clearText);

    /// Ends the client: no service runs any more when this returns, and both are destroyed.
    void releaseInstance();

private:
    MsgBusEnterpriseAgent() = default;
    ~MsgBusEnterpriseAgent() = default;
};

} // namespace HVBEnterprise
