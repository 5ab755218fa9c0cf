#include "tests/support/TraceLog.h"

#include "daemon/Trace.h"

#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <stdexcept>

namespace testing_support {

void setAllFlows(int level) {
    for (std::int32_t* flow : {&stDaemonFlowvalue, &configFlowvalue, &loggerFlowvalue, &stCmdFlowvalue, &hcFlowvalue,
                               &mgsFlowvalue, &safariPluginFlowvalue, &ipcFlowvalue}) {
        *flow = level;
    }
}

TraceLog::TraceLog() {
    std::setlocale(LC_CTYPE, "C.UTF-8");
    char name[] = "/tmp/stt.XXXXXX";
    if (mkdtemp(name) == nullptr) {
        throw std::runtime_error("no directory for the trace log");
    }
    m_directory = name;
    m_path = m_directory + "/STTrace.log";
    constexpr int highest = 5;
    setAllFlows(highest);
    Sentrel::trace::openTraceLog(m_path);
}

TraceLog::~TraceLog() {
    Sentrel::trace::closeTraceLog();
    std::filesystem::remove_all(m_directory);
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
