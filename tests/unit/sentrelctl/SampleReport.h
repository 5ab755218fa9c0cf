// A stored browser event as the tests of sentrelctl need it.
#pragma once

#include "apps/sentrelctl/reports/Report.h"
#include "hub/HubIds.h"

namespace Sentrel::ctl {

/// The detailed record of a red site that was blocked.
inline DetailReportData sampleDetail() {
    DetailReportData detail;
    detail.m_name = L"STStaus";
    detail.attributes = {{L"ThreatCategory", L"st.detect.url"},
                         {L"ThreatSeverity", L"2"},
                         {L"SourceProcessName", L"firefox"},
                         {L"SourceIPV4", L"192.0.2.7"},
                         {L"TargetUserName", L"host1\\anna"}};
    detail.info = {{L"URL", L"https://red.example/a"},
                   {L"RatingID", L"3"},
                   {L"ReasonID", L"1"},
                   {L"ActionID", L"4"},
                   {L"ListID", L"1"},
                   {L"Count", L"1"}};
    detail.m_time = 1700000000;
    detail.m_reportType = 7;
    return detail;
}

inline ReportData sampleReport() {
    ReportData report;
    report.m_reportName = L"STBlockEvent";
    report.m_subType = L"AV_ScheduledScan";
    report.m_time = 1700000000;
    report.m_reportType = 7;
    return report;
}

/// Stored at 2023-11-14 22:13:20.000123 UTC.
inline StoredRecord stored(const std::wstring& text, const std::wstring& detail) {
    return {12, 1700000000000123, HVB::MODULE_SENTREL, HVB::LOG_TYPE_BROWSER_EVENT, text, detail, 1};
}

inline StoredRecord sampleRecord() {
    return stored(sampleReport().toWstring(), sampleDetail().toWstring());
}

} // namespace Sentrel::ctl
