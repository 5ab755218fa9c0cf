// A system that refuses the program one thing, named by SENTRELD_REFUSES; the linker leads the calls here (--wrap):
//   mask    the mask that holds SIGUSR2 alone; restoring what that call left in the old mask ends the program
//   lock 1  the first mutex that is locked once the PID file is gone again; lock 3: the third one
#include "base/Paths.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <string>

extern "C" {

int __real_pthread_sigmask(int how, const sigset_t* set, sigset_t* before);
int __real_pthread_mutex_lock(pthread_mutex_t* mutex);

int __wrap_pthread_sigmask(int how, const sigset_t* set, sigset_t* before);
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex);

} // extern "C"

namespace {

bool isRefused(const std::string& what) {
    const char* refused = std::getenv("SENTRELD_REFUSES");
    return refused != nullptr && refused == what;
}

bool isSigusr2Alone(const sigset_t* set) {
    return set != nullptr && sigismember(set, SIGUSR2) == 1 && sigismember(set, SIGTERM) == 0;
}

/// How many locks were asked for since the PID file is gone; 0 before that.
int locksSinceThePidFile() {
    static std::atomic<bool> wasThere{false};
    static std::atomic<int> locks{0};
    const bool isThere = access(Sentrel::paths::pidFile().c_str(), F_OK) == 0;
    wasThere = wasThere || isThere;
    return wasThere && !isThere ? ++locks : 0;
}

} // namespace

int __wrap_pthread_sigmask(int how, const sigset_t* set, sigset_t* before) {
    static std::atomic<bool> hasRefused{false};
    if (isRefused("mask") && how == SIG_BLOCK && isSigusr2Alone(set)) {
        sigemptyset(before); // a mask that nobody else has
        sigaddset(before, SIGUSR1);
        hasRefused = true;
        return EINVAL;
    }
    if (hasRefused && how == SIG_SETMASK && sigismember(set, SIGUSR1) == 1 && sigismember(set, SIGTERM) == 0) {
        std::abort(); // what was never taken is restored
    }
    return __real_pthread_sigmask(how, set, before);
}

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    const int lock = locksSinceThePidFile();
    return lock > 0 && isRefused("lock " + std::to_string(lock)) ? EINVAL : __real_pthread_mutex_lock(mutex);
}
