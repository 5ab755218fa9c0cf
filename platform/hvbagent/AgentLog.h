// Where the library's log lines go.
#pragma once

#include "base/Mutex.h"
#include "platform/hvbagent/MsgBusEnterpriseAgent.h"

#include <string>

namespace HVBEnterprise::agent {

/// Log lines for the module's logger; those above debug also for the system's log. Text from outside must have been
/// quoted before; a line is bounded here. No operation throws.
/// Threads: thread-safe. Owner: the client and its threads, together.
class AgentLog {
public:
    explicit AgentLog(AgentLogger logger) : m_logger(logger) {}

    void error(const std::string& text) noexcept { write(AGENT_LOG_ERROR, text); }
    void warning(const std::string& text) noexcept { write(AGENT_LOG_WARNING, text); }
    void information(const std::string& text) noexcept { write(AGENT_LOG_INFORMATION, text); }
    void debug(const std::string& text) noexcept { write(AGENT_LOG_DEBUG, text); }

    /// When this returns, the module's logger is not called any more.
    void detach();

private:
    void write(AgentLogCategory category, const std::string& text) noexcept;

    Sentrel::Mutex m_mutex;
    AgentLogger m_logger SENTREL_GUARDED_BY(m_mutex);
};

} // namespace HVBEnterprise::agent
