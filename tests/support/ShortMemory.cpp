#include "tests/support/ShortMemory.h"

#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

std::atomic<const char*> shortOn{nullptr};
thread_local bool shortHere = false;
std::atomic<std::size_t> sparedLeft{0};
std::atomic<std::size_t> failed{0};

bool isShortByName() {
    const char* const name = shortOn;
    std::array<char, 16> own{};
    return name != nullptr && pthread_getname_np(pthread_self(), own.data(), own.size()) == 0 &&
           std::strcmp(name, own.data()) == 0;
}

bool failsHere() {
    if (!shortHere && !isShortByName()) {
        return false;
    }
    if (sparedLeft > 0) {
        --sparedLeft;
        return false;
    }
    ++failed;
    return true;
}

} // namespace

namespace testing_support {

ShortMemory::ShortMemory(const char* threadName, std::size_t spared) {
    sparedLeft = spared;
    failed = 0;
    shortOn = threadName;
}

ShortMemory::ShortMemory(std::size_t spared) {
    sparedLeft = spared;
    failed = 0;
    shortHere = true;
}

ShortMemory::~ShortMemory() {
    shortHere = false;
    shortOn = nullptr;
}

std::size_t ShortMemory::failures() const {
    return failed;
}

} // namespace testing_support

void* operator new(std::size_t size) {
    void* memory = failsHere() ? nullptr : std::malloc(std::max<std::size_t>(size, 1));
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

// A sanitizer's own would not go with the delete below.
void* operator new(std::size_t size, const std::nothrow_t& /*none*/) noexcept {
    return failsHere() ? nullptr : std::malloc(std::max<std::size_t>(size, 1));
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
