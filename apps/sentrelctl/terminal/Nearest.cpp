#include "apps/sentrelctl/terminal/Nearest.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace Sentrel::ctl {
namespace {

constexpr std::size_t kFarthest = 2; // edits between a word and what it may have been meant for

std::size_t editDistance(std::string_view from, std::string_view to) {
    std::vector<std::size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < from.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i + 1);
        for (std::size_t j = 0; j < to.size(); ++j) {
            const std::size_t replaced = diagonal + (from[i] == to[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j + 1] + 1, row[j] + 1});
        }
    }
    return row.back();
}

} // namespace

std::optional<std::string_view> nearest(std::string_view word, const std::vector<std::string_view>& candidates) {
    std::optional<std::string_view> best;
    std::size_t leastEdits = std::min(kFarthest + 1, word.size()); // one letter is near to everything
    for (const std::string_view candidate : candidates) {
        // A long word needs no comparison: it is farther away than its excess.
        if (word.size() > candidate.size() + kFarthest) {
            continue;
        }
        const bool isBeginning = word.size() > 1 && candidate.starts_with(word);
        const std::size_t edits = isBeginning ? 0 : editDistance(word, candidate);
        if (edits < leastEdits) {
            leastEdits = edits;
            best = candidate;
        }
    }
    return best;
}

} // namespace Sentrel::ctl
