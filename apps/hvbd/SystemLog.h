// hvbd's lines in the system log.
#pragma once

#include <syslog.h>

#include <string>
#include <string_view>

namespace HVB::hub {

/// The system log under the name "hvbd".
/// Threads: any. Owner: the program; one at a time, since syslog(3) has one state for the whole process.
class SystemLog {
public:
    enum class Echo { None, StandardError };

    /// @param echo whether each line also goes to standard error, for a run in the foreground.
    explicit SystemLog(Echo echo);
    ~SystemLog();
    SystemLog(const SystemLog&) = delete;
    SystemLog& operator=(const SystemLog&) = delete;

    /// Writes one line, made printable and cut. @param priority LOG_ERR to LOG_DEBUG. Failures are ignored: there is no
    /// better place to report them.
    void write(int priority, std::string_view line) const;
};

/// Reports a trouble when it starts, when its text changes and when it ends, each time once, however often it occurs.
/// Threads: one at a time. Owner: whoever meets the trouble; the log must outlive it.
class TroubleReport {
public:
    TroubleReport(const SystemLog& log, std::string whenOver) : m_log(log), m_whenOver(std::move(whenOver)) {}

    void met(const std::string& text);
    void over();

private:
    // Constant after construction.
    const SystemLog& m_log;
    const std::string m_whenOver;
    // Plain, single access.
    std::string m_current; ///< empty when there is no trouble
};

} // namespace HVB::hub
