#include "platform/stlogger/STLogger.h"

#include <syslog.h>

#include <cstdarg>

void LogMsg(int level, const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    vsyslog(LOG_DAEMON | LOG_PRI(level), format, args);
    va_end(args);
}
