// Failures of the system that a test of the event server cannot bring about: the linker leads listen, chmod, select and
// pthread_create here (--wrap). Whatever a test does not set is answered by the real call.
#pragma once

#include <deque>
#include <functional>

namespace testing_support {

/// Threads: set before the server's thread starts, which then takes the answers. Owner: one a process, fresh for each
/// test.
struct SocketCalls {
    static SocketCalls& instance();

    int listenError = 0;                     ///< errno with which listen fails; 0: it does not
    int threadError = 0;                     ///< what pthread_create gives; 0: a thread
    int chmodError = 0;                      ///< errno with which chmod fails; 0: it does not
    std::deque<std::function<int()>> select; ///< what the next calls of select do; they may set errno and throw
};

} // namespace testing_support
