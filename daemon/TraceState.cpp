// The trace facility's global state. Everything starts at zero; there are no levels but those of the level file.
#include "daemon/Trace.h"

std::int32_t stDaemonFlowvalue = 0;
std::int32_t configFlowvalue = 0;
std::int32_t loggerFlowvalue = 0;
std::int32_t stCmdFlowvalue = 0;
std::int32_t hcFlowvalue = 0;
std::int32_t mgsFlowvalue = 0;
std::int32_t safariPluginFlowvalue = 0;
std::int32_t ipcFlowvalue = 0;

std::int32_t traceInited = 0;
std::FILE* logFilePtr = nullptr;

namespace dbSettingsLog {
std::int32_t traceInited = 0;
std::FILE* logFilePtr = nullptr;
std::int32_t safariPluginFlowvalue = 0;
} // namespace dbSettingsLog
