// Points in time as all verbs show them.
#pragma once

#include <cstdint>
#include <string>

namespace Sentrel::ctl {

/// A time in microseconds since the epoch for people: to the second, in the local time zone.
std::string localTime(std::int64_t microseconds);

/// The same for programs: to the microsecond, in UTC.
std::string utcTime(std::int64_t microseconds);

} // namespace Sentrel::ctl
