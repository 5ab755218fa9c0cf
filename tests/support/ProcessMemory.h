// What a process weighs.
#pragma once

#include <sys/types.h>

#include <fstream>
#include <stdexcept>
#include <string>

namespace testing_support {

/// A line of /proc/<pid>/status, in KiB (proc(5)): "VmRSS:" is what it holds now, "VmHWM:" the most that it has held.
/// @throws std::runtime_error when the process has ended.
inline long processKilobytes(pid_t pid, const std::string& field = "VmRSS:") {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(field)) {
            return std::stol(line.substr(field.size()));
        }
    }
    throw std::runtime_error("no " + field + " of process " + std::to_string(pid));
}

/// The same in MiB.
inline double processMebibytes(pid_t pid, const std::string& field = "VmRSS:") {
    constexpr double kibibytes = 1024;
    return static_cast<double>(processKilobytes(pid, field)) / kibibytes;
}

} // namespace testing_support
