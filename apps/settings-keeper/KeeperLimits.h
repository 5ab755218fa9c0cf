// The limits of the settings keeper, each with its reason.
#pragma once

#include <chrono>
#include <cstddef>

namespace Sentrel::keeper {

/// From one look at the file to the next. A look at a file that did not change is some twenty system calls.
inline constexpr std::chrono::milliseconds kBetweenLooks{500};
/// The timer may be so late, so that the kernel can join wake-ups.
inline constexpr std::chrono::milliseconds kLateness{50};
/// No event tells of some changes. A file that has rested for so long is in nobody's midst.
inline constexpr std::chrono::milliseconds kQuiet{3000};
/// The same for a file that was just opened, of which nothing is known yet: no row of a list that is being replaced
/// waits so long for the next, unless a lock holds it up.
inline constexpr std::chrono::milliseconds kQuietAfterOpening{400};
/// After the daemon's event nothing may be committed for so long: the event may be of another change than the one that
/// is under way. Far above the time from a list's row to the next.
inline constexpr std::chrono::milliseconds kQuietAfterEvent{50};
/// Events that come sooner after one another are taken together: a burst of changes is not as many readings.
inline constexpr std::chrono::milliseconds kBetweenEvents{50};
/// A list that differs for so long is said to be changing.
inline constexpr std::chrono::milliseconds kChangeToTell{500};
/// How far a list is, is told with a text of all lists: of so many entries a second. Short lists are told at each look.
inline constexpr std::size_t kProgressEntries = 20'000;
/// How long a call for a fresh reading waits for the end of a change. Below hvbd's own deadline.
inline constexpr std::chrono::milliseconds kFreshWait{4000};
/// How long a read waits for a lock, which only the rollback journal's mode knows. The loop stands still meanwhile.
inline constexpr std::chrono::milliseconds kLockWait{250};
/// A file that cannot be read is tried again after this, unless another one is in its place.
inline constexpr std::chrono::milliseconds kTroublePause{5000};
/// From one look at every page of the file to the next.
inline constexpr std::chrono::hours kBetweenChecks{1};

} // namespace Sentrel::keeper
