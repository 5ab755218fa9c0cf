// What every program does before anything else.
#pragma once

namespace Sentrel {

/// To be called first in every main.
/// Opens /dev/null in the place of each standard descriptor that is closed: a file or socket that is opened later must
/// not get the number of one, or printed lines end up in it.
/// Sees to it that the process leaves no core dump, on the disk or with a program that collects them: it would hold
/// URLs, keys and passwords. Programs with an install root of the environment, which are the developers', may leave one
/// when coreDumpsAllowed says so.
/// Threads: while there is one.
void beginProcess() noexcept;

} // namespace Sentrel
