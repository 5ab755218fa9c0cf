#include "tests/support/TraceLog.h"

#include "daemon/Trace.h"
#include "platform/hvbhelpers/HVBHelpers.h"
#include "tests/support/FreshStart.h"

#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <stdexcept>

namespace testing_support {
namespace {

void makeTraceFresh() {
    Sentrel::trace::closeTraceLog();
    logFilePtr = nullptr;
    setAllFlows(0);
    for (std::int32_t* flow : {&cmdHelperFlowvalue, &regHelperFlowvalue, &hvInitFlowvalue, &hvCommFlowvalue}) {
        *flow = 0;
    }
}

[[maybe_unused]] const bool registered = [] {
    startEachTestWith(makeTraceFresh);
    return true;
}();

} // namespace

void setAllFlows(int level) {
    for (std::int32_t* flow : {&stDaemonFlowvalue, &configFlowvalue, &loggerFlowvalue, &stCmdFlowvalue, &hcFlowvalue,
                               &mgsFlowvalue, &safariPluginFlowvalue, &ipcFlowvalue}) {
        *flow = level;
    }
}

TraceLog::TraceLog() : m_path(m_directory.file("STTrace.log")) {
    std::setlocale(LC_CTYPE, "C.UTF-8");
    constexpr int highest = 5;
    setAllFlows(highest);
    Sentrel::trace::openTraceLog(m_path);
}

TraceLog::~TraceLog() {
    Sentrel::trace::closeTraceLog();
}

std::vector<std::string> TraceLog::lines() const {
    static const std::regex stamp("^[A-Z][a-z]+ [0-9]{2}, [0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2} ");
    std::ifstream file(m_path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
        lines.push_back(std::regex_replace(line, stamp, ""));
    }
    return lines;
}

bool TraceLog::has(const std::string& line) const {
    const std::vector<std::string> all = lines();
    return std::find(all.begin(), all.end(), line) != all.end();
}

} // namespace testing_support
