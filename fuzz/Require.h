// What a fuzz target demands of its subject.
#pragma once

#include <cstdlib>

namespace fuzz {

/// Ends the process as a crash, which the fuzzer keeps the input of, unless @p holds.
inline void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

} // namespace fuzz
