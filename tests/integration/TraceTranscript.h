// What a program's trace log must hold, line by line, though several threads write to it.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace testing_support {

/// What one thread writes in a step: these lines in this order, the whole of them as often as told.
struct Voice {
    std::string name;
    std::vector<std::string> lines;
    std::size_t atLeast = 1;
    std::size_t atMost = 1;
};

/// A stretch of the log: some interleaving of its voices, with nothing missing and nothing besides.
struct Step {
    std::string name;
    std::vector<Voice> voices;
};

/// Why @p lines are no such interleaving, with the place; nothing when they are one.
std::optional<std::string> whyNot(const std::vector<std::string>& lines, const Step& step);

/// Reads the steps of a transcript: "== step", in it "-- voice", in it the lines. "-- voice (1 to 3 times)" tells how
/// often, "-- voice (at any time)" that it is there or not, and that in every later step too. Empty lines are for the
/// reader, and so are those that begin with "#". @throws std::runtime_error for a file that says something else.
std::vector<Step> readTranscript(const std::string& path);

} // namespace testing_support
