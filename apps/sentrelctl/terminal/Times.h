// Points in time as all verbs show them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Sentrel::ctl {

/// A time in microseconds since the epoch for people: to the second, in the local time zone.
std::string localTime(std::int64_t microseconds);

/// As localTime, without the zone, for a table.
std::string localTableTime(std::int64_t microseconds);

/// The point in time that a user means, in microseconds since the epoch: "2023-11-14", that with " 22:13" or
/// "T22:13:20.5", each with "Z" or an offset behind it or in the local time zone; "22:13", today; "now", "today",
/// "yesterday"; "90s", "30min", "2h", "3d", "1w", so long ago. None when it is no time.
std::optional<std::int64_t> timeMeant(const std::string& text, std::int64_t now);

/// The length of "90s", "30min", "2h", "3d" or "1w", in seconds. None when it is none.
std::optional<std::int64_t> durationMeant(std::string_view text);

/// The same for programs: to the microsecond, in UTC.
std::string utcTime(std::int64_t microseconds);

} // namespace Sentrel::ctl
