#include "tests/unit/store/Interposed.h"

#include <dlfcn.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <new>

namespace {

TimelessWaits* timelessWaits = nullptr;
WatchedOpens* watchedOpens = nullptr;
thread_local int allocationsLeft = -1; // negative: none fails
thread_local bool allocationFailed = false;

template <class Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

TimelessWaits::TimelessWaits() {
    timelessWaits = this;
}
TimelessWaits::~TimelessWaits() {
    timelessWaits = nullptr;
}

WatchedOpens::WatchedOpens(int failures, int code) : failuresLeft(failures), failure(code) {
    watchedOpens = this;
}
WatchedOpens::~WatchedOpens() {
    watchedOpens = nullptr;
}

AllocationFailure::AllocationFailure(int before) {
    allocationsLeft = before;
    allocationFailed = false;
}
AllocationFailure::~AllocationFailure() {
    allocationsLeft = -1;
}
bool AllocationFailure::happened() {
    return allocationFailed;
}

extern "C" int usleep(useconds_t microseconds) {
    if (timelessWaits == nullptr) {
        return next<int(useconds_t)>("usleep")(microseconds);
    }
    timelessWaits->all.push_back(microseconds);
    if (timelessWaits->duringAWait) {
        timelessWaits->duringAWait();
    }
    return 0;
}

extern "C" int sqlite3_open(const char* path, sqlite3** database) {
    if (watchedOpens != nullptr) {
        ++watchedOpens->count;
        if (watchedOpens->failuresLeft > 0) {
            --watchedOpens->failuresLeft;
            *database = nullptr;
            return watchedOpens->failure;
        }
    }
    return next<int(const char*, sqlite3**)>("sqlite3_open")(path, database);
}

void* operator new(std::size_t size) {
    if (allocationsLeft == 0) {
        allocationsLeft = -1;
        allocationFailed = true;
        throw std::bad_alloc();
    }
    allocationsLeft -= allocationsLeft > 0 ? 1 : 0;
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
