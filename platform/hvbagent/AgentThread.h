// How the library makes its threads.
#pragma once

#include <pthread.h>

#include <csignal>
#include <thread>
#include <utility>

namespace HVBEnterprise::agent {

/// Starts a thread with every signal blocked: a module's handlers run on the module's own threads, never on these.
/// @param name shown by ps and gdb; at most 15 characters.
/// @throws std::system_error when there is no thread to be had.
template <class Body>
std::thread startThread(const char* name, Body&& body) {
    struct AllSignalsBlocked { // a thread inherits the mask of the one that makes it
        sigset_t before{};
        AllSignalsBlocked() {
            sigset_t all;
            sigfillset(&all);
            pthread_sigmask(SIG_SETMASK, &all, &before);
        }
        ~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
    };
    const AllSignalsBlocked blocked;
    std::thread thread(std::forward<Body>(body));
    pthread_setname_np(thread.native_handle(), name);
    return thread;
}

} // namespace HVBEnterprise::agent
