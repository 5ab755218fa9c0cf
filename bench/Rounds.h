// What the benches that compare times have in common.
#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <functional>

/// Free functions without state. Threads: any. Owner: none.
namespace bench {

inline constexpr std::size_t kRounds = 3;
/// A figure of each round.
using Rounds = std::array<double, kRounds>;

inline double median(Rounds values) {
    std::sort(values.begin(), values.end());
    return values[kRounds / 2];
}

/// Microseconds that one of @p count runs of @p work takes. The argument of a run is its number, from 0.
inline double microseconds(int count, const std::function<void(int)>& work) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point begin = Clock::now();
    for (int run = 0; run < count; ++run) {
        work(run);
    }
    return std::chrono::duration<double, std::micro>(Clock::now() - begin).count() / count;
}

} // namespace bench
