// Feeds one message as it arrives on the event socket. Whatever comes, at most one report goes out; its two texts read
// back, and hold the URL of the message and nothing of an earlier one.
#include "daemon/Trace.h"
#include "events/ReportRecords.h"
#include "events/STEventData.h"
#include "events/STEventServer.h"
#include "fuzz/Require.h"
#include "tests/support/RecordingBroker.h"

#include <algorithm>
#include <clocale>
#include <cstddef>
#include <cstdio>

namespace {

using fuzz::require;

/// Every line is formatted, as at the highest trace level.
bool traceEverything() {
    std::setlocale(LC_CTYPE, "C.UTF-8");
    ipcFlowvalue = mgsFlowvalue = loggerFlowvalue = 5;
    logFilePtr = std::fopen("/dev/null", "a"); // openTraceLog would change the mode of what it opens
    traceInited = 1;
    return logFilePtr != nullptr;
}

std::wstring urlOf(const std::uint8_t* data, std::size_t size) {
    std::wstring url;
    for (std::size_t at = offsetof(STEventData, url); at < std::min(size, offsetof(STEventData, browserProcessName));
         ++at) {
        if (data[at] == 0) {
            break;
        }
        url += static_cast<wchar_t>(static_cast<signed char>(data[at]));
    }
    return url;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool tracing = traceEverything();
    require(tracing);
    testing_support::Recording::instance().forget();
    const auto& logs = testing_support::Recording::instance().logs;
    constexpr std::size_t largest = 1024;
    Sentrel::STEventServer::processMessage(-1, {reinterpret_cast<const char*>(data), std::min(size, largest)});
    require(logs.size() <= 1);
    for (const testing_support::SentLog& log : logs) {
        const auto stream = HVB::makeInStream(log.detailText);
        DetailReportData detail;
        *HVB::makeInArchive(*stream) >> detail;
        require(detail.attributes[L"SourceURL"] == urlOf(data, size));
        require(detail.toWstring() == log.detailText);
    }
    return 0;
}
