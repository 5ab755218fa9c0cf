// What the worker of a change depends on, as a test wants it: its thread watched and held back, and the
// moment at which it looks whether its file is still there.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <pthread.h>
#include <sys/types.h>

/// While one exists, every thread that the code starts waits at the gate until it is opened, and how it was started is
/// on record.
/// Threads: one at a time. Owner: the test; destroying it opens it and waits for the threads.
class WorkerGate {
public:
    WorkerGate();
    WorkerGate(const WorkerGate&) = delete;
    WorkerGate& operator=(const WorkerGate&) = delete;
    ~WorkerGate();

    void open();
    /// How many threads wait at the gate.
    std::size_t waiting();
    /// Waits until every thread that was started has ended, and its stack and all of it is gone from the process.
    void waitUntilAllEnded();

    bool refuses = false; ///< threads cannot be started
    int refusals = 0;
    int starts = 0;
    bool hadDefaultAttributes = true;
    void* argument = nullptr; ///< of the last start

    // Used by the replaced calls.
    int start(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*), void* value);
    void pass();
    void leave();

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    // Guarded by m_mutex; what a thread did before it left is seen by who waited for it.
    bool m_isOpen = false;
    int m_left = 0;
    std::vector<pid_t> m_threads; // that were not seen to end
};

/// While one exists, its hook is called whenever the code is about to look whether there is a file at its path.
/// Threads: the hook runs on the thread that looks. Owner: the test.
class LookedAtFile {
public:
    LookedAtFile(std::string file, std::function<void()> hook);
    LookedAtFile(const LookedAtFile&) = delete;
    LookedAtFile& operator=(const LookedAtFile&) = delete;
    ~LookedAtFile();

    const std::string path;
    const std::function<void()> before;
};
