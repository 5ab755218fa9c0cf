// The lines that the daemon traces at its start and its stop, in their order and each with its level.
#pragma once

#include "tests/unit/daemon/DaemonFixture.h"

#include <csignal>
#include <string>
#include <unistd.h>
#include <vector>

namespace testing_support {

struct TracedLine {
    int level;
    std::string text;
};

using TracedLines = std::vector<TracedLine>;

inline Lines withoutLast(Lines lines) {
    lines.pop_back();
    return lines;
}

/// Those of @p lines that are written at @p level.
inline Lines textsUpTo(int level, const TracedLines& lines) {
    Lines texts;
    for (const TracedLine& line : lines) {
        if (line.level <= level) {
            texts.push_back(line.text);
        }
    }
    return texts;
}

/// All of @p lines, as the highest level writes them.
inline Lines textsOf(const TracedLines& lines) {
    constexpr int highest = 5;
    return textsUpTo(highest, lines);
}

inline TracedLines operator+(TracedLines left, const TracedLines& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

inline TracedLines linesBeforePidFile() {
    return {{2, "VXHealthCheckImpl::VXHealthCheckImpl - Object created"},
            {5, "VXCommandImpl::VXCommandImpl"},
            {3, "VXController::main - started tracing"}};
}

inline TracedLines pidFileLines() {
    return {{3, " VXController::createPidFile  - locked pidfile and wrote our pid " + std::to_string(getpid())}};
}

inline TracedLines agentLines() {
    return {{3, "VXController::main - Starting OA Agent Wrapper"}};
}

inline TracedLines hubLines() {
    return {{3, "VXController::main - Starting HVB"},
            {2, "VXController::startHVB - Entered"},
            {5, "VXController::startHVB - Exiting"}};
}

inline TracedLines startLines() {
    return linesBeforePidFile() + pidFileLines() + agentLines() + hubLines();
}

inline TracedLines sigtermLines() {
    return {{3, " terminationHandler - Recieved sigterm. Going down"}};
}

inline TracedLines stopLines() {
    return {{3, "VXController::main - Stopping Sentrel"},
            {2, "VXController::main -removing pid file"},
            {5, "VXCommandImpl::~VXCommandImpl"}};
}

inline TracedLines releaseLines() {
    return {{3, "VXController::removePidFile - Entered"},
            {2, "VXHealthCheckImpl::~VXHealthCheckImpl - Object destroyed"},
            {2, "VXController::main() - Exiting"}};
}

} // namespace testing_support
