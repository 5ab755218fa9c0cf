#include "tests/unit/store/ReadBackGate.h"

#include "tests/support/Eventually.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sqlite3.h>

#include <atomic>

namespace {

std::atomic<ReadBackGate*> theGate{nullptr};

/// The gate's own locks are not those of the code under test.
thread_local bool isInsideTheGate = false;

class InsideTheGate {
public:
    InsideTheGate() { isInsideTheGate = true; }
    ~InsideTheGate() { isInsideTheGate = false; }
    InsideTheGate(const InsideTheGate&) = delete;
    InsideTheGate& operator=(const InsideTheGate&) = delete;
};

} // namespace

ReadBackGate::ReadBackGate(const std::string& table) : m_start("select * from " + table) {
    theGate = this;
}

ReadBackGate::~ReadBackGate() {
    theGate = nullptr;
    letGo();
}

bool ReadBackGate::holdsAReader() {
    const InsideTheGate inside;
    const std::lock_guard lock(m_mutex);
    return m_isHolding;
}

bool ReadBackGate::hasSeenAWaitForALock() {
    const InsideTheGate inside;
    const std::lock_guard lock(m_mutex);
    return m_hasSeenAWait;
}

void ReadBackGate::letGo() {
    const InsideTheGate inside;
    const std::lock_guard lock(m_mutex);
    m_isOpen = true;
    m_changed.notify_all();
}

void ReadBackGate::pass(const std::string& sql) {
    const InsideTheGate inside;
    std::unique_lock lock(m_mutex);
    if (sql.rfind(m_start, 0) != 0 || m_isHolding) {
        return;
    }
    m_isHolding = true;
    if (!m_changed.wait_until(lock, testing_support::patience(), [this] { return m_isOpen; })) {
        ADD_FAILURE() << "waited in vain for the test to let the reader go";
    }
}

void ReadBackGate::waitsForALock() {
    const InsideTheGate inside;
    const std::lock_guard lock(m_mutex);
    m_hasSeenAWait = m_isHolding;
}

extern "C" {

int __real_sqlite3_finalize(sqlite3_stmt* statement);
int __real_pthread_mutex_lock(pthread_mutex_t* mutex);

int __wrap_sqlite3_finalize(sqlite3_stmt* statement);
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex);

int __wrap_sqlite3_finalize(sqlite3_stmt* statement) {
    if (ReadBackGate* gate = theGate; gate != nullptr && statement != nullptr) {
        gate->pass(sqlite3_sql(statement));
    }
    return __real_sqlite3_finalize(statement);
}

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    ReadBackGate* gate = isInsideTheGate ? nullptr : theGate.load();
    if (gate != nullptr) {
        if (pthread_mutex_trylock(mutex) == 0) {
            return 0;
        }
        gate->waitsForALock();
    }
    return __real_pthread_mutex_lock(mutex);
}

} // extern "C"
