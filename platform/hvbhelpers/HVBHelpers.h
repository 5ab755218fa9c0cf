// What else the hub's client library offers a module: log lines, and the trace levels that the module assigns.
#pragma once

#include "hub/HubIds.h"

#include <cstdint>

/// Trace levels of the library's own flows. The daemon assigns them from its level file; at 0 a flow is silent.
/// Threads: plain values, written while the levels are loaded and read without a lock.
extern std::int32_t cmdHelperFlowvalue;
extern std::int32_t regHelperFlowvalue;
extern std::int32_t hvInitFlowvalue;
extern std::int32_t hvCommFlowvalue;

/// Logs a formatted line for a module; the hub writes it to the system log.
/// @param moduleId the module that the line is from.
/// @param moduleName its name, wide.
/// @param format a wide printf format; %s takes a narrow string. A line that cannot be formatted is refused.
/// @throws HVB::HVBException when the hub cannot be reached or refuses the line.
void HVB_LOG_MSG(int moduleId, const wchar_t* moduleName, HVB::typeOfLog_enum type, HVB::hv_logLevel_enum level,
                 const wchar_t* format, ...);
