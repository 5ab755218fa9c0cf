// The management agent's client library, as far as the daemon needs it.
#pragma once

#include <cstdint>
#include <string>

namespace HVBEnterprise {

/// Kind of a line that the agent library logs.
enum AgentLogCategory : std::int32_t {
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
/// Threads: as each operation says. Owner: the library; a client is made with createInstance and ended with
/// releaseInstance.
class MsgBusEnterpriseAgent {
public:
    /// Gives the client, or null when this machine has no agent. No agent exists on this platform yet, so it is null.
    static MsgBusEnterpriseAgent* createInstance(const std::string& moduleId, const std::string& agentId,
                                                 AgentLogger logger, RqdMsgBusEnterpriseAgentImpl services);

    /// Asks the agent about itself. @return whether @p answer was written. Any thread.
    bool getAgentInformation(const int& informationId, std::wstring& answer);

    /// Deciphers @p message into @p clearText. @param kind which key. May throw. Any thread.
    void decryptMessage(std::string& message, int kind, std::string& clearText);

    /// Ends the client. It is not to be used afterwards.
    void releaseInstance();

private:
    MsgBusEnterpriseAgent() = default;
    ~MsgBusEnterpriseAgent() = default;
};

/// Small helpers of the agent library.
/// Threads: any. Owner: none, it is only a scope.
class HvbAgentUtils {
public:
    /// The narrow form of a wide text: UTF-8, with U+FFFD for what is no character.
    static std::string wstringToString(const std::wstring& text);
};

} // namespace HVBEnterprise
