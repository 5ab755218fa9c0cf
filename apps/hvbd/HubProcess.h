// The hub process: its parts put together, from the first line in the log to the last.
#pragma once

#include "apps/hvbd/HubCommandLine.h"

namespace HVB::hub {

/// Runs the hub until SIGTERM or SIGINT. Without a bus at start it says so on standard error and gives up; a bus that
/// goes away later is waited for.
/// Requires that no other thread runs yet, since it blocks the two signals for all of them.
/// @return the exit code.
int runHub(const CommandLine& line);

} // namespace HVB::hub
