// Points in time, as text for people and for programs, and as people write them.
//
// What a user writes is read in the local time zone, as it is shown; with a zone behind it, in that one. So whatever
// this program shows of a time, it also takes.
//
// What must stay so:
// - A day that there is not (30 February) is refused and not carried over, as mktime would.
// - The system decides about summer time: a day may have 23 or 25 hours, so midnight is asked for and never computed.
#include "apps/sentrelctl/terminal/Times.h"

#include <array>
#include <charconv>
#include <ctime>
#include <fmt/format.h>
#include <string_view>
#include <utility>

namespace Sentrel::ctl {
namespace {

constexpr std::int64_t kMicroseconds = 1000000;

/// The whole seconds of a time in microseconds, rounded down also before the epoch.
std::int64_t wholeSeconds(std::int64_t microseconds) {
    return microseconds / kMicroseconds - (microseconds % kMicroseconds < 0 ? 1 : 0);
}

std::string formatted(const std::tm& time, const char* format) {
    std::array<char, 64> text{};
    return {text.data(), std::strftime(text.data(), text.size(), format, &time)};
}

std::tm localDay(std::int64_t now) {
    const std::time_t seconds = wholeSeconds(now);
    std::tm day{};
    ::localtime_r(&seconds, &day);
    day.tm_hour = day.tm_min = day.tm_sec = 0;
    day.tm_isdst = -1; // the day may have both
    return day;
}

std::optional<std::int64_t> microsecondsOf(std::tm time) {
    const std::time_t seconds = ::mktime(&time); // which puts the fields in order
    return seconds == -1 ? std::nullopt : std::optional(std::int64_t{seconds} * kMicroseconds);
}

std::optional<std::int64_t> dayMeant(const std::string& text, std::int64_t now) {
    if (text == "now") {
        return now;
    }
    std::tm day = localDay(now);
    if (text == "yesterday") {
        --day.tm_mday;
    } else if (text != "today") {
        return std::nullopt;
    }
    return microsecondsOf(day);
}

/// "2h": so long before @p now.
std::optional<std::int64_t> agoMeant(std::string_view text, std::int64_t now) {
    const std::optional<std::int64_t> seconds = durationMeant(text);
    return seconds ? std::optional(now - *seconds * kMicroseconds) : std::nullopt;
}

/// A fraction of a second at the beginning of @p rest, which is taken off.
std::optional<std::int64_t> takeFraction(std::string_view& rest) {
    if (!rest.starts_with('.')) {
        return 0;
    }
    rest.remove_prefix(1);
    std::int64_t fraction = 0;
    std::int64_t worth = kMicroseconds;
    bool isThere = false;
    while (!rest.empty() && rest.front() >= '0' && rest.front() <= '9') {
        worth /= 10;
        fraction += (rest.front() - '0') * worth;
        rest.remove_prefix(1);
        isThere = true;
    }
    return isThere ? std::optional(fraction) : std::nullopt;
}

/// What stands behind the time of day: nothing, or a zone.
std::optional<std::int64_t> withZone(std::tm time, std::string_view rest) {
    const std::size_t zone = rest.find_first_not_of(' ');
    if (rest.empty() || zone == std::string_view::npos) {
        return rest.empty() ? microsecondsOf(time) : std::nullopt;
    }
    std::tm offset{};
    const std::string text(rest.substr(zone));
    const char* end = ::strptime(text.c_str(), "%z", &offset);
    if (end == nullptr || *end != '\0') {
        return std::nullopt;
    }
    return (std::int64_t{::timegm(&time)} - offset.tm_gmtoff) * kMicroseconds;
}

std::optional<std::int64_t> dateMeant(const std::string& text, std::int64_t now) {
    static constexpr std::array<const char*, 7> formats{
        "%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M:%S", "%Y-%m-%d %H:%M", "%Y-%m-%dT%H:%M", "%Y-%m-%d", "%H:%M:%S", "%H:%M"};
    for (const char* format : formats) {
        std::tm time = localDay(now);
        const char* end = ::strptime(text.c_str(), format, &time);
        if (end == nullptr) {
            continue;
        }
        std::tm carried = time;
        if (::timegm(&carried) == -1 || carried.tm_mday != time.tm_mday) {
            return std::nullopt;
        }
        std::string_view rest = end;
        const std::optional<std::int64_t> fraction = takeFraction(rest);
        const std::optional<std::int64_t> seconds = withZone(time, rest);
        return fraction && seconds ? std::optional(*seconds + *fraction) : std::nullopt;
    }
    return std::nullopt;
}

} // namespace

std::optional<std::int64_t> durationMeant(std::string_view text) {
    static constexpr std::array<std::pair<std::string_view, std::int64_t>, 6> units{
        {{"s", 1}, {"m", 60}, {"min", 60}, {"h", 3600}, {"d", 86400}, {"w", 604800}}};
    constexpr std::int64_t longest = 10000000; // of any unit; of weeks it is still far below an overflow
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || number < 0 || number > longest) {
        return std::nullopt;
    }
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    for (const auto& [unit, seconds] : units) {
        if (text == unit) {
            return number * seconds;
        }
    }
    return std::nullopt;
}

std::optional<std::int64_t> timeMeant(const std::string& text, std::int64_t now) {
    for (const auto& meant : {dayMeant(text, now), agoMeant(text, now), dateMeant(text, now)}) {
        if (meant) {
            return meant;
        }
    }
    return std::nullopt;
}

std::string localTableTime(std::int64_t microseconds) {
    const std::time_t seconds = wholeSeconds(microseconds);
    std::tm time{};
    ::localtime_r(&seconds, &time);
    return formatted(time, "%Y-%m-%d %H:%M:%S");
}

std::string localTime(std::int64_t microseconds) {
    const std::time_t seconds = wholeSeconds(microseconds);
    std::tm time{};
    ::localtime_r(&seconds, &time);
    return formatted(time, "%Y-%m-%d %H:%M:%S %z");
}

std::string utcTime(std::int64_t microseconds) {
    const std::time_t seconds = wholeSeconds(microseconds);
    std::tm time{};
    ::gmtime_r(&seconds, &time);
    return formatted(time, "%Y-%m-%dT%H:%M:%S") + fmt::format(".{:06}Z", microseconds - seconds * kMicroseconds);
}

} // namespace Sentrel::ctl
