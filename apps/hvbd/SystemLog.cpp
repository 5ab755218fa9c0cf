#include "apps/hvbd/SystemLog.h"

#include "apps/hvbd/HvbdLimits.h"
#include "base/PrintableText.h"

namespace HVB::hub {

SystemLog::SystemLog(Echo echo) {
    openlog("hvbd", LOG_PID | (echo == Echo::StandardError ? LOG_PERROR : 0), LOG_DAEMON);
}

SystemLog::~SystemLog() {
    closelog();
}

void SystemLog::write(int priority, std::string_view line) const {
    // A line of a module is cut to its own limit before its head is put in front; the head must not cut it again.
    constexpr std::size_t headRoom = 256;
    syslog(priority, "%s",
           Sentrel::text::shortened(Sentrel::text::printable(line), kMaxLogLineBytes + headRoom).c_str());
}

void TroubleReport::met(const std::string& text) {
    if (text != m_current) {
        m_current = text;
        m_log.write(LOG_ERR, text);
    }
}

void TroubleReport::over() {
    if (!m_current.empty()) {
        m_current.clear();
        m_log.write(LOG_NOTICE, m_whenOver);
    }
}

} // namespace HVB::hub
