#include "apps/sentrelctl/terminal/Times.h"

#include <array>
#include <ctime>
#include <fmt/format.h>

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

} // namespace

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
