// Reports as the daemon sends them, for tests of the log store.
#pragma once

#include "events/ReportRecords.h"
#include "platform/hvbhelpers/HubProtocol.h"

#include <string>

namespace hvbd_tests {

/// The bytes of both texts of a report.
struct ReportTexts {
    std::string text;
    std::string detail;
};

inline std::string bytesOf(const std::wstring& text) {
    return std::string(HVB::bus::asBytes(text));
}

inline ReportTexts reportOf(const std::wstring& site, const std::wstring& page,
                            const std::wstring& process = L"firefox", const std::wstring& action = L"4") {
    const std::wstring url = L"http://" + site + L"/" + page;
    ReportData report;
    report.m_reportName = L"STBlockEvent";
    report.m_subType = L"AV_ScheduledScan";
    report.m_reportType = 7;
    DetailReportData detail;
    detail.m_name = L"STStaus";
    detail.attributes = {{L"Analyzer", L"NODE_ST_1070UNIX"},
                         {L"AnalyzerDetectionMethod", L"URL navigation"},
                         {L"AnalyzerVersion", L"10.7.8"},
                         {L"DetectedUTC", L"2026-11-22T10:00:00Z"},
                         {L"EventID", L"18600"},
                         {L"Severity", L"4"},
                         {L"SourceIPV4", L"192.0.2.17"},
                         {L"SourceProcessName", process},
                         {L"SourceURL", url},
                         {L"TargetHostName", L"desktop-17"},
                         {L"TargetUserName", L"desktop-17\\anna"},
                         {L"ThreatActionTaken", L"blocked"},
                         {L"ThreatCategory", L"st.detect.url"},
                         {L"ThreatHandled", L"1"},
                         {L"ThreatName", L"Sentrel Violation"},
                         {L"ThreatSeverity", L"2"},
                         {L"ThreatType", L"IDS_THREAT_TYPE_URL"}};
    for (const auto& [key, value] :
         std::initializer_list<std::pair<const wchar_t*, std::wstring>>{{L"target", L"ST_EventInfoMT"},
                                                                        {L"EventTypeId", L"18600"},
                                                                        {L"DomainName", site},
                                                                        {L"URL", url},
                                                                        {L"Count", L"1"},
                                                                        {L"ListID", L"1"},
                                                                        {L"RatingID", L"3"},
                                                                        {L"ReasonID", L"1"},
                                                                        {L"ActionID", action}}) {
        detail.info.emplace(key, value);
    }
    detail.m_reportType = 7;
    return {bytesOf(report.toWstring()), bytesOf(detail.toWstring())};
}

} // namespace hvbd_tests
