// What a piece of code writes to the trace log with one flow at one level and every other flow silent.
#pragma once

#include "tests/support/TraceLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace testing_support {

/// The level at which a flow writes all its lines.
inline constexpr int kAllLevels = 5;

/// The lines that @p run writes while only @p flow speaks, at @p level.
template <class Run>
std::vector<std::string> linesOf(std::int32_t& flow, int level, Run run) {
    const TraceLog log;
    setAllFlows(0);
    flow = level;
    run();
    return log.lines();
}

/// Expects that @p run writes @p line on @p flow at exactly @p level: it is there at that level and gone one below.
template <class Run>
void expectLineAt(std::int32_t& flow, int level, const std::string& line, Run run) {
    EXPECT_THAT(linesOf(flow, level, run), testing::Contains(line)) << "at level " << level;
    EXPECT_THAT(linesOf(flow, level - 1, run), testing::Not(testing::Contains(line))) << "below level " << level;
}

/// The lines that @p run writes on @p flow alone, in their order, each with the level that it needs and a blank in
/// front.
/// @p run is called once for each level and has to write the same each time; @p rewritten takes out of a line what
/// cannot be the same.
template <class Run, class Rewritten>
std::vector<std::string> leveledLines(std::int32_t& flow, Run run, Rewritten rewritten) {
    constexpr int highest = 5;
    std::vector<std::vector<std::string>> at;
    for (int level = 0; level <= highest; ++level) {
        at.push_back(linesOf(flow, level, run));
        std::transform(at.back().begin(), at.back().end(), at.back().begin(), rewritten);
    }
    std::vector<std::string> result;
    std::vector<std::size_t> seen(at.size());
    for (const std::string& line : at.back()) {
        // A level's lines are those of the highest without some: the next of them that is not this one needs more.
        std::size_t needed = at.size() - 1;
        for (std::size_t level = needed; level-- > 0;) {
            if (seen[level] < at[level].size() && at[level][seen[level]] == line) {
                needed = level;
            }
        }
        for (std::size_t level = needed; level < at.size(); ++level) {
            ++seen[level];
        }
        result.push_back(std::to_string(needed) + " " + line);
    }
    return result;
}

template <class Run>
std::vector<std::string> leveledLines(std::int32_t& flow, Run run) {
    return leveledLines(flow, run, [](const std::string& line) { return line; });
}

} // namespace testing_support
