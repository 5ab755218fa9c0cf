#include "tests/unit/store/WorkerGate.h"

#include "tests/support/Eventually.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <filesystem>
#include <iterator>
#include <memory>
#include <utility>

namespace {

WorkerGate* gate = nullptr;
LookedAtFile* lookedAtFile = nullptr;
std::ptrdiff_t threadsBefore = 0;

using Create = int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

Create* realCreate() {
    return reinterpret_cast<Create*>(dlsym(RTLD_NEXT, "pthread_create"));
}

std::ptrdiff_t threadsNow() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

struct Start {
    void* (*routine)(void*);
    void* value;
    WorkerGate* gate;
};

void* enter(void* start) {
    const auto held = *std::unique_ptr<Start>(static_cast<Start*>(start));
    held.gate->pass();
    return held.routine(held.value);
}

} // namespace

WorkerGate::WorkerGate() {
    threadsBefore = threadsNow();
    gate = this;
}

WorkerGate::~WorkerGate() {
    open();
    waitUntilAllEnded();
    gate = nullptr;
}

void WorkerGate::open() {
    const std::lock_guard lock(m_mutex);
    m_isOpen = true;
    m_changed.notify_all();
}

void WorkerGate::waitUntilAllEnded() {
    testing_support::eventually([] { return threadsNow() <= threadsBefore; });
}

int WorkerGate::start(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*), void* value) {
    ++starts;
    hadDefaultAttributes = hadDefaultAttributes && attributes == nullptr;
    argument = value;
    return realCreate()(thread, attributes, enter, std::make_unique<Start>(Start{routine, value, this}).release());
}

void WorkerGate::pass() {
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return m_isOpen; });
}

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*),
                              void* value) {
    return gate != nullptr ? gate->start(thread, attributes, routine, value)
                           : realCreate()(thread, attributes, routine, value);
}

LookedAtFile::LookedAtFile(std::string file, std::function<void()> hook)
    : path(std::move(file)), before(std::move(hook)) {
    lookedAtFile = this;
}

LookedAtFile::~LookedAtFile() {
    lookedAtFile = nullptr;
}

// What boost::filesystem::status calls.
extern "C" int stat64(const char* path, struct stat64* result) {
    if (lookedAtFile != nullptr && lookedAtFile->path == path) {
        lookedAtFile->before();
    }
    return reinterpret_cast<int (*)(const char*, struct stat64*)>(dlsym(RTLD_NEXT, "stat64"))(path, result);
}
