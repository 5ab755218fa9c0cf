#include "events/VXHVBLogWrapper.h"

#include "base/Paths.h"
#include "daemon/Trace.h"
#include "hub/HVBCommBroker.h"
#include "platform/hvbhelpers/HVBHelpers.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <utility>

namespace Sentrel {
namespace {

void sendRecord(HVB::typeOfLog_enum type, std::wstring text, std::wstring detailText) {
    HVB::LogRequest request;
    request.m_sourceId = HVB::MODULE_SENTREL;
    request.m_logType = type;
    request.m_text = std::move(text);
    request.m_detailText = std::move(detailText);
    request.m_count = 1;
    HVB::HVBCommBroker::getInstance(paths::hubSocket())->sendLog(request);
}

std::unique_ptr<char, decltype(&std::free)> formatted(const char* format, std::va_list args) {
    char* text = nullptr;
    if (vasprintf(&text, format, args) < 0) {
        throw std::bad_alloc();
    }
    return {text, &std::free};
}

/// The line in a form that the hub's formatter takes. A text that is not valid in the locale is made printable:
/// otherwise the formatter refuses the whole line.
std::string formattableLine(const char* text) {
    constexpr auto invalid = static_cast<std::size_t>(-1);
    return std::mbstowcs(nullptr, text, 0) == invalid ? trace::printable(text) : std::string(text);
}

} // namespace

void VXHVBLogWrapper::sendLogMessage(HVB::typeOfLog_enum type, HVB::hv_logLevel_enum level, const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    std::unique_ptr<char, decltype(&std::free)> text(nullptr, &std::free);
    try {
        text = formatted(format, args);
        HVB_LOG_MSG(HVB::MODULE_SENTREL, L"Sentrel", type, level, L"%s", formattableLine(text.get()).c_str());
    } catch (const HVB::HVBException&) {
        ST_TRACE(loggerFlow, 1, L"Recieved HVB exception while logging message - %s\n",
                 trace::printable(text.get()).c_str());
    } catch (...) {
        ST_TRACE(loggerFlow, 1, L"Recieved exception while logging message - %s\n",
                 trace::printable(text != nullptr ? text.get() : format).c_str());
    }
    va_end(args);
}

void VXHVBLogWrapper::sendRecentEvents(DetailReportData& detail) {
    ST_TRACE(loggerFlow, 3, L"HVBLogWrapper::sendRecentEvents\n");
    try {
        sendRecord(HVB::LOG_TYPE_RECENT_EVENT, detail.toWstring(), {});
    } catch (const HVB::HVBException&) {
        ST_TRACE(loggerFlow, 1,
                 L"HVBLogWrapper::sendRecentEvents Received HVB exception while logging recent Event message\n");
    } catch (...) {
        ST_TRACE(loggerFlow, 1,
                 L"HVBLogWrapper::sendRecentEvents Received generic exception while logging recent Event message\n");
    }
}

void VXHVBLogWrapper::sendHistoryEvents(ReportData& report, DetailReportData& detail) {
    ST_TRACE(loggerFlow, 3, L"HVBLogWrapper::sendHistoryEvents\n");
    try {
        sendRecord(HVB::LOG_TYPE_HISTORY_EVENT, report.toWstring(), detail.toWstring());
    } catch (const HVB::HVBException&) {
        ST_TRACE(loggerFlow, 1,
                 L"HVBLogWrapper::sendHistoryEvents Received HVB exception while logging recent Event message\n");
    } catch (...) {
        ST_TRACE(loggerFlow, 1,
                 L"HVBLogWrapper::sendHistoryEvents Received generic exception while logging recent Event message\n");
    }
}

void VXHVBLogWrapper::sendMgsEvents(ReportData& /*report*/, DetailReportData& /*detail*/) {
    ST_TRACE(loggerFlow, 3, L"HVBLogWrapper::sendMgsEvent\n");
}

} // namespace Sentrel
