// What a piece of code writes to the trace log with one flow at one level and every other flow silent.
#pragma once

#include "tests/support/TraceLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace testing_support {

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

} // namespace testing_support
