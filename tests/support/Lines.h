// Lines of a trace log, or what else came one after the other, as a test compares them.
#pragma once

#include <string>
#include <vector>

namespace testing_support {

using Lines = std::vector<std::string>;

/// @p left with @p right behind it.
inline Lines operator+(Lines left, const Lines& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

} // namespace testing_support
