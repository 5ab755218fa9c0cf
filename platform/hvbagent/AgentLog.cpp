#include "platform/hvbagent/AgentLog.h"

#include "base/PrintableText.h"
#include "platform/hvbagent/AgentLimits.h"
#include "platform/hvbagent/Encoding.h"
#include "platform/stlogger/STLogger.h"

#include <syslog.h>

namespace HVBEnterprise::agent {
namespace {

int priorityOf(AgentLogCategory category) {
    switch (category) {
    case AGENT_LOG_ERROR:
        return LOG_ERR;
    case AGENT_LOG_WARNING:
        return LOG_WARNING;
    case AGENT_LOG_INFORMATION:
        return LOG_NOTICE;
    case AGENT_LOG_DEBUG:
        break;
    }
    return LOG_DEBUG;
}

} // namespace

void AgentLog::detach() {
    const Sentrel::MutexLock lock(m_mutex);
    m_logger = nullptr;
}

void AgentLog::write(AgentLogCategory category, const std::string& text) noexcept {
    try {
        const std::string line = "agent: " + Sentrel::text::shortened(Sentrel::text::printable(text), kMaxLogLine);
        if (category != AGENT_LOG_DEBUG) {
            LogMsg(priorityOf(category), "%s", line.c_str());
        }
        const Sentrel::MutexLock lock(m_mutex);
        if (m_logger != nullptr) {
            m_logger(category, wideOf(line).c_str());
        }
    } catch (...) {
        LogMsg(LOG_ERR, "agent: a log line cannot be made");
    }
}

} // namespace HVBEnterprise::agent
