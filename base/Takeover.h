// Whether this process is still the one that counts.
#pragma once

namespace Sentrel {

/// Nothing keeps a second process of one kind from being started. What only one of them can have goes to the newest;
/// the library that learns of it first notes it here, and every other one lets go of what it has, and asks for nothing
/// more. Threads: any. Needs no lock, and may be asked in the handler of a signal.
bool isTakenOver() noexcept;
void setTakenOver(bool isTakenOver) noexcept;

} // namespace Sentrel
