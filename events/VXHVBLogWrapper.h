// Sends log lines and log records to the hub.
#pragma once

#include "events/ReportRecords.h"
#include "hub/HubIds.h"

namespace Sentrel {

/// Static operations that wrap what goes to the hub's log. None throws: a failure becomes a trace line.
/// Threads: any; it holds no state. Owner: none, it is only a scope.
class VXHVBLogWrapper {
public:
    /// One formatted line for the hub, as printf(3) formats it.
    static void sendLogMessage(HVB::typeOfLog_enum type, HVB::hv_logLevel_enum level, const char* format, ...)
        __attribute__((format(printf, 3, 4)));

    /// A record of the kind "recent event", with the detailed record alone.
    static void sendRecentEvents(DetailReportData& detail);

    /// A record of the kind "history event", with both records.
    static void sendHistoryEvents(ReportData& report, DetailReportData& detail);

    /// Only traces: the record of a browser event is sent by the event reporter itself.
    static void sendMgsEvents(ReportData& report, DetailReportData& detail);
};

} // namespace Sentrel
