// Memory that stays short for a while: the global operator new of a program that links this fails where it is told to.
#pragma once

#include <cstddef>

namespace testing_support {

/// While it lives, every allocation by operator new on the threads of one name fails; malloc itself works on, as it
/// does for the libraries in C, which report a failure by a code. Threads: one at a time lives in a process. Owner: the
/// test.
class ShortMemory {
public:
    /// @param threadName as ps shows it; must outlive this. @param spared so many allocations still succeed.
    explicit ShortMemory(const char* threadName, std::size_t spared = 0);
    /// The same on the calling thread.
    explicit ShortMemory(std::size_t spared);
    ~ShortMemory();
    ShortMemory(const ShortMemory&) = delete;
    ShortMemory& operator=(const ShortMemory&) = delete;

    /// How many allocations have failed.
    std::size_t failures() const;
};

} // namespace testing_support
