// One run of the program, and what every verb is given.
#pragma once

#include "apps/sentrelctl/terminal/Json.h"
#include "apps/sentrelctl/terminal/Output.h"

#include <chrono>
#include <string>
#include <vector>

namespace Sentrel::ctl {

/// Threads: one. Owner: run(); it outlives the command line and the verb.
struct Session {
    Output& out;
    Output& err;
    int inputFd;

    // Known once the command line is parsed.
    JsonMode json = JsonMode::Off;
    Palette palette;
};

/// The point in time at which a wait of @p seconds that begins now is over.
std::chrono::steady_clock::time_point deadlineAfter(double seconds);

/// Runs the program: parses, works, reports. Nothing is thrown. @return the exit code.
/// @param arguments those behind the program's name.
int run(const std::vector<std::string>& arguments, Output& out, Output& err, int inputFd);

} // namespace Sentrel::ctl
