#include "tests/unit/events/AllocationMeter.h"

#include <algorithm>
#include <cstdlib>
#include <new>

namespace {

thread_local bool measuring = false;
thread_local std::size_t greatestRequest = 0;
thread_local std::size_t totalRequested = 0;

} // namespace

namespace testing_support {

AllocationMeter::AllocationMeter() {
    greatestRequest = 0;
    totalRequested = 0;
    measuring = true;
}

AllocationMeter::~AllocationMeter() {
    measuring = false;
}

std::size_t AllocationMeter::greatest() const {
    return greatestRequest;
}
std::size_t AllocationMeter::total() const {
    return totalRequested;
}

} // namespace testing_support

void* operator new(std::size_t size) {
    if (measuring) {
        greatestRequest = std::max(greatestRequest, size);
        totalRequested += size;
        // A request that no test can mean is refused rather than tried.
        constexpr std::size_t absurd = std::size_t{1} << 30;
        if (size > absurd) {
            throw std::bad_alloc();
        }
    }
    void* memory = std::malloc(std::max<std::size_t>(size, 1));
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
