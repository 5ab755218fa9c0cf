// The trace library beside the trace log: lines for the system's own log.
#pragma once

/// Logs a line at @p level of syslog(3), 0 (emergency) to 7 (debug), with the format of printf(3). Any thread.
void LogMsg(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
