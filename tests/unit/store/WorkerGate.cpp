#include "tests/unit/store/WorkerGate.h"

#include "tests/support/Eventually.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>

namespace {

WorkerGate* gate = nullptr;
LookedAtFile* lookedAtFile = nullptr;

using Create = int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

Create* realCreate() {
    return reinterpret_cast<Create*>(dlsym(RTLD_NEXT, "pthread_create"));
}

bool isThere(pid_t thread) {
    return std::filesystem::exists("/proc/self/task/" + std::to_string(thread));
}

struct Start {
    void* (*routine)(void*);
    void* value;
    WorkerGate* gate;
};

/// The way of one thread through the gate and out; the worker ends by unwinding, which runs the destructor.
struct Passage {
    explicit Passage(WorkerGate& of) : gate(of) { gate.pass(); }
    Passage(const Passage&) = delete;
    Passage& operator=(const Passage&) = delete;
    ~Passage() { gate.leave(); }
    WorkerGate& gate;
};

void* enter(void* start) {
    const auto held = *std::unique_ptr<Start>(static_cast<Start*>(start));
    const Passage passage(*held.gate);
    return held.routine(held.value);
}

} // namespace

WorkerGate::WorkerGate() {
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

std::size_t WorkerGate::waiting() {
    const std::lock_guard lock(m_mutex);
    return m_isOpen ? 0 : m_threads.size();
}

void WorkerGate::waitUntilAllEnded() {
    EXPECT_TRUE(testing_support::eventually([this] {
        const std::lock_guard lock(m_mutex);
        std::erase_if(m_threads, [](pid_t thread) { return !isThere(thread); });
        return m_left == starts && m_threads.empty();
    })) << "a worker goes on";
}

int WorkerGate::start(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*), void* value) {
    if (refuses) {
        ++refusals;
        return EAGAIN;
    }
    ++starts;
    hadDefaultAttributes = hadDefaultAttributes && attributes == nullptr;
    argument = value;
    return realCreate()(thread, attributes, enter, std::make_unique<Start>(Start{routine, value, this}).release());
}

void WorkerGate::pass() {
    std::unique_lock lock(m_mutex);
    m_threads.push_back(gettid());
    if (!m_changed.wait_until(lock, testing_support::patience(), [this] { return m_isOpen; })) {
        ADD_FAILURE() << "waited in vain for the gate to open";
    }
}

void WorkerGate::leave() {
    const std::lock_guard lock(m_mutex);
    ++m_left;
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
