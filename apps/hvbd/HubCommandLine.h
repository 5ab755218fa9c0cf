// The command line of hvbd.
#pragma once

#include "platform/hvbhelpers/BusConfiguration.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace HVB::hub {

/// Exit codes, the same as the command line client's.
enum ExitCode : int {
    EXIT_DONE = 0,
    EXIT_FAILED = 1,
    EXIT_USAGE = 2,
    EXIT_NO_ACCESS = 4,
    EXIT_NOT_RUNNING = 8, ///< there is no bus
};

struct CommandLine {
    std::chrono::seconds healthInterval{60};
    std::string silenceMarks; ///< the directory for marks of silent modules; empty for none
    std::uint64_t logLimitBytes = 0;
    bool logToStderr = false;
    /// Set: print the bus's configuration and do nothing else.
    std::optional<bus::BusConfigurationOptions> printBusConfiguration;
    /// Set: exit with this code; what there was to say has been said.
    std::optional<int> exitCode;
};

/// Never throws for bad usage: that is an exit code.
CommandLine parseCommandLine(int argc, const char* const* argv);

/// Prints the bus's configuration to standard output, after making sure that every user and group in it exists: the bus
/// ignores a rule for one that does not. @return the exit code.
int printBusConfiguration(const bus::BusConfigurationOptions& options);

} // namespace HVB::hub
