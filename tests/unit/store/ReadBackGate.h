// The moment between reading a list back and taking it over, as a test wants it: the linker leads sqlite3_finalize and
// pthread_mutex_lock here (--wrap).
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>

/// While one exists, the first thread that has read all rows of a table is held before it does anything with them.
/// Threads: the test's makes it; any may be held or wait. Owner: the test; destroying it lets go.
class ReadBackGate {
public:
    explicit ReadBackGate(const std::string& table);
    ~ReadBackGate();
    ReadBackGate(const ReadBackGate&) = delete;
    ReadBackGate& operator=(const ReadBackGate&) = delete;

    /// Whether a thread stands at the gate.
    bool holdsAReader();
    /// Whether some thread has found a mutex taken since a thread stands at the gate.
    bool hasSeenAWaitForALock();
    void letGo();

    // Used by the replaced calls.
    void pass(const std::string& sql);
    void waitsForALock();

private:
    const std::string m_start; // of the statement that reads the rows
    std::mutex m_mutex;
    std::condition_variable m_changed;
    // Guarded by m_mutex.
    bool m_isHolding = false;
    bool m_isOpen = false;
    bool m_hasSeenAWait = false;
};
