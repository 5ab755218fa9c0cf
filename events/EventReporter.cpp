// From a browser's record to the report at the hub.
//
// A record is dropped without a line when its URL is empty or has no path behind its scheme, or when it is a warning
// that the user has not answered. What remains is classified by its rating into a threat or an informational event;
// the two differ in their attributes, and one key is missing altogether from the latter.
//
// What must stay so:
// - A field is read up to its size, as it may lack its terminator.
// - Texts are widened byte by byte with their sign. No character set is assumed; the reader undoes exactly this.
// - Times are UTC. Names, misspelt ones too, are what the reports' readers know.
// - It runs on the event server's thread and nothing leaves it: a failure is a trace line and the event is lost.
//   Nothing is cached and nothing is sent again.
#include "events/EventReporter.h"

#include "base/Paths.h"
#include "base/Singleton.h"
#include "daemon/Trace.h"
#include "events/HostAddress.h"
#include "events/NPlgHelper.h"
#include "events/ReportRecords.h"
#include "events/VXHVBLogWrapper.h"
#include "hub/HVBCommBroker.h"

#include <cstring>
#include <ctime>
#include <map>
#include <string_view>

using Sentrel::trace::printable;

EventReporter* EventReporter::m_pSelf = nullptr;
boost::mutex EventReporter::m_instanceMutex;

namespace {

constexpr const wchar_t* kEventType = L"18600";
constexpr std::int32_t kReportType = 7;
constexpr int kWarned = 2;
constexpr int kBlocked = 3;

/// The texts of an event, bounded by their fields, and what was found out about them.
struct Event {
    const STEventData& record;
    std::string url;
    std::string process;
    std::string domain;
    int colorId;

    bool isThreat() const { return colorId == 2 || colorId == 3; }
};

/// The text of a field, which may lack its terminator.
template <std::size_t Size>
std::string textOf(const char (&field)[Size]) {
    return std::string(field, strnlen(field, Size));
}

/// One wide character a byte, sign-extended; the report's reader undoes exactly this.
std::wstring widenBytes(std::string_view bytes) {
    std::wstring wide;
    wide.reserve(bytes.size());
    for (const char byte : bytes) {
        wide += static_cast<wchar_t>(static_cast<signed char>(byte));
    }
    return wide;
}

std::wstring utcNow() {
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    char text[256] = "";
    static_cast<void>(std::strftime(text, sizeof text, "%Y-%m-%dT%TZ", &utc));
    return widenBytes(text);
}

std::string consoleUserOrRoot() {
    std::string user = NPlgHelper::GetCurrentUser();
    return user.empty() ? "root" : user;
}

using Attributes = DetailReportData::Attributes;
using Information = DetailReportData::Information;

void addClassification(Attributes& attributes, const Event& event, const std::wstring& action) {
    const bool threat = event.isThreat();
    attributes[L"ThreatCategory"] = threat ? L"st.detect.url" : L"ops.informational.event";
    attributes[L"ThreatSeverity"] = threat ? L"2" : L"6";
    attributes[L"Severity"] = threat ? L"4" : L"0";
    attributes[L"ThreatName"] = threat ? L"Sentrel Violation" : L"";
    attributes[L"ThreatType"] = threat ? L"IDS_THREAT_TYPE_URL" : L"";
    attributes[L"ThreatActionTaken"] = threat ? action : L"";
    if (threat) {
        attributes[L"ThreatHandled"] = L"1"; // the one key that an informational event lacks altogether
    }
}

void addMachine(Attributes& attributes) {
    const std::string host = getSystemHostName();
    const std::string address = getHostIp(host);
    attributes[L"TargetHostName"] = widenBytes(host);
    if (!address.empty()) {
        attributes[L"SourceIPV4"] = widenBytes(address);
    }
    attributes[L"TargetUserName"] = widenBytes(host + "\\" + consoleUserOrRoot());
}

Attributes attributesOf(const Event& event, const std::wstring& action) {
    Attributes attributes;
    attributes[L"EventID"] = kEventType;
    attributes[L"Analyzer"] = L"NODE_ST_1070UNIX";
    attributes[L"AnalyzerVersion"] = L"10.7.8";
    attributes[L"DetectedUTC"] = utcNow();
    addClassification(attributes, event, action);
    attributes[L"SourceURL"] = widenBytes(event.url);
    attributes[L"SourceProcessName"] = widenBytes(event.process);
    attributes[L"AnalyzerDetectionMethod"] = L"URL navigation";
    addMachine(attributes);
    return attributes;
}

Information informationOf(const Event& event, EventReporter& reporter) {
    const STEventData& record = event.record;
    Information info;
    info.emplace(L"target", L"ST_EventInfoMT");
    info.emplace(L"EventTypeId", kEventType);
    info.emplace(L"DomainName", widenBytes(event.domain));
    info.emplace(L"URL", widenBytes(event.url));
    info.emplace(L"Count", std::to_wstring(record.count));
    info.emplace(L"ListID", std::to_wstring(reporter.GetListID(record)));
    if (record.blockedInCategory != 0) {
        ST_TRACE(ipcFlow, 2,
                 L"EventReporter::sendBlockEventToHVB - isBlocked_OnCategory - %d \n Blocked Category ID - %d\n",
                 record.blockedInCategory, record.blockedCategoryId);
        info.emplace(L"ContentID", std::to_wstring(record.blockedCategoryId));
    }
    info.emplace(L"RatingID", std::to_wstring(event.colorId));
    info.emplace(L"ReasonID", std::to_wstring(reporter.GetReasonInfoID(record)));
    info.emplace(L"ActionID", std::to_wstring(reporter.GetActionInfoID(record)));
    return info;
}

void sendToHub(const ReportData& report, const DetailReportData& detail) {
    HVB::LogRequest request;
    request.m_sourceId = HVB::MODULE_SENTREL;
    request.m_logType = HVB::LOG_TYPE_BROWSER_EVENT;
    request.m_text = report.toWstring();
    request.m_detailText = detail.toWstring();
    request.m_count = 1;
    HVB::HVBCommBroker::getInstance(Sentrel::paths::hubSocket())->sendLog(request);
}

} // namespace

EventReporter* EventReporter::getInstance() {
    return Sentrel::instanceOf(m_pSelf, m_instanceMutex, [] { return new EventReporter; });
}

void EventReporter::releaseInstance() {
    ST_TRACE(mgsFlow, 1, L"EventReporter::releaseInstance - Invoked \n");
    Sentrel::releaseInstanceOf(m_pSelf, m_instanceMutex);
    ST_TRACE(mgsFlow, 1, L"EventReporter::releaseInstance - Completed \n");
}

void EventReporter::sendSTEvent(STEventData& event) {
    ST_TRACE(ipcFlow, 2, L"EventReporter::sendSTEvent - Invoked \n");
    sendBlockEventToHVB(event);
}

void EventReporter::sendBlockEventToHVB(STEventData& record) {
    try {
        ST_TRACE(ipcFlow, 2, L"EventReporter::sendBlockEventToHVB - Invoked \n");
        ReportData report;
        DetailReportData detail;
        Event event{record, textOf(record.url), textOf(record.browserProcessName), {}, 0};
        if (event.url.empty() || !isValidUrl(event.url) || !ShouldSendEvent(record)) {
            return;
        }
        event.colorId = GetRatingColorID(record.urlRating);
        ST_TRACE(ipcFlow, 2, L"EventReporter::sendBlockEventToHVB - Action - %d\n", record.action);
        std::string path;
        NPlgHelper::ExtractBaseDomain(event.url, event.domain, path);
        ST_TRACE(ipcFlow, 2, L"EventReporter::sendBlockEventToHVB - URL - %s \n Length - %d \n\n",
                 printable(event.url).c_str(), static_cast<int>(event.url.size()));
        report.m_reportType = kReportType;
        report.m_reportName = L"STBlockEvent";
        report.m_subType = L"AV_ScheduledScan";
        detail.m_name = L"STStaus";
        detail.attributes = attributesOf(event, widenBytes(GetActionString(record.action)));
        detail.info = informationOf(event, *this);
        detail.m_reportType = kReportType;
        sendToHub(report, detail);
        Sentrel::VXHVBLogWrapper::sendMgsEvents(report, detail);
    } catch (...) {
        ST_TRACE(ipcFlow, 1, L"EventReporter::sendBlockEventToHVB - Exception \n");
    }
}

bool EventReporter::ShouldSendEvent(const STEventData& event) {
    return event.action != kWarned || event.userAction != 0;
}

bool EventReporter::isValidUrl(const std::string& url) {
    constexpr std::size_t firstPathSlash = 7; // behind "http://"; of longer schemes the second slash counts too
    return url.find('/', firstPathSlash) != std::string::npos ||
           url.find("reports.blockedSiteDSSError") != std::string::npos;
}

int EventReporter::GetActionInfoID(const STEventData& event) {
    constexpr int neither = 4; // the blocked value included
    switch (event.action) {
    case 1:
        return 1;
    case kWarned:
        return event.userAction != 0 ? event.userAction : kWarned;
    default:
        return neither;
    }
}

int EventReporter::GetReasonInfoID(const STEventData& event) {
    if (event.inAllowBlockList == 1) {
        return 2;
    }
    if (event.isPhishing == 1) {
        return 3;
    }
    constexpr int category = 5;
    return event.blockedInCategory == 1 ? category : 1;
}

int EventReporter::GetRatingColorID(int rating) {
    constexpr int unrated = -100;
    constexpr int unverified = 15;
    constexpr int noColor = 6;
    if (rating == unrated || rating == unverified) {
        return noColor;
    }
    if (rating < unverified) {
        return 1;
    }
    if (rating < 30) {
        return 4;
    }
    return rating < 50 ? 2 : 3;
}

int EventReporter::GetListID(const STEventData& event) {
    if (event.inAllowBlockList != 1) {
        return 1;
    }
    return event.blockedInAllowBlockList == 1 ? 3 : 2;
}

std::string EventReporter::GetActionString(int action) {
    switch (action) {
    case 1:
        return "allowed";
    case kWarned:
        return "IDS_THREAT_ACTION_WARN";
    case kBlocked:
        return "blocked";
    default:
        return {};
    }
}
