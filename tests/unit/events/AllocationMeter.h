// How much memory a piece of code asks for: the global operator new of this test program counts.
#pragma once

#include <cstddef>

namespace testing_support {

/// Measures what the calling thread asks for during its lifetime. Threads: its maker's. Owner: a test.
class AllocationMeter {
public:
    AllocationMeter();
    ~AllocationMeter();
    AllocationMeter(const AllocationMeter&) = delete;
    AllocationMeter& operator=(const AllocationMeter&) = delete;

    /// The greatest single request in bytes.
    std::size_t greatest() const;
    /// All requests together, freed ones included.
    std::size_t total() const;
};

} // namespace testing_support
