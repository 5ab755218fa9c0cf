// Calls of the code under test that a test can watch or make fail: the wait for a lock, the open, and memory.
#pragma once

#include <functional>
#include <vector>

/// While one exists, the code's waits for a lock are recorded and take no time.
/// Threads: one at a time, and no other thread waits meanwhile. Owner: the test.
class TimelessWaits {
public:
    TimelessWaits();
    TimelessWaits(const TimelessWaits&) = delete;
    TimelessWaits& operator=(const TimelessWaits&) = delete;
    ~TimelessWaits();

    /// The waits so far, in microseconds.
    std::vector<unsigned> all;
    /// Is called in each wait, when there is one.
    std::function<void()> duringAWait;
};

/// While one exists, opens are counted, and the first ones fail without a handle.
/// Threads: one at a time, and no other thread opens meanwhile. Owner: the test.
class WatchedOpens {
public:
    explicit WatchedOpens(int failures = 0, int failure = 0);
    WatchedOpens(const WatchedOpens&) = delete;
    WatchedOpens& operator=(const WatchedOpens&) = delete;
    ~WatchedOpens();

    int count = 0;
    int failuresLeft;
    int failure; ///< SQLite's code for those that fail
};

/// While one exists, one allocation with new fails on this thread: the one after @p before others.
/// Threads: each has its own. Owner: the test.
class AllocationFailure {
public:
    explicit AllocationFailure(int before);
    AllocationFailure(const AllocationFailure&) = delete;
    AllocationFailure& operator=(const AllocationFailure&) = delete;
    ~AllocationFailure();

    /// Whether it came to that.
    static bool happened();
};
