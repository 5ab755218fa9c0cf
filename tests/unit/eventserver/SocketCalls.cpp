#include "tests/unit/eventserver/SocketCalls.h"

#include "tests/support/FreshStart.h"

#include <pthread.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>

namespace testing_support {

SocketCalls& SocketCalls::instance() {
    return freshForEachTest<SocketCalls>();
}

} // namespace testing_support

using testing_support::SocketCalls;

extern "C" {

int __real_listen(int fd, int backlog);
int __real_chmod(const char* path, mode_t mode);
int __real_select(int count, fd_set* read, fd_set* write, fd_set* except, timeval* timeout);

int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*), void* value);

int __wrap_listen(int fd, int backlog);
int __wrap_chmod(const char* path, mode_t mode);
int __wrap_select(int count, fd_set* read, fd_set* write, fd_set* except, timeval* timeout);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*), void* value);

int __wrap_listen(int fd, int backlog) {
    const int error = SocketCalls::instance().listenError;
    if (error == 0) {
        return __real_listen(fd, backlog);
    }
    errno = error;
    return -1;
}

int __wrap_chmod(const char* path, mode_t mode) {
    const int error = SocketCalls::instance().chmodError;
    if (error == 0) {
        return __real_chmod(path, mode);
    }
    errno = error;
    return -1;
}

int __wrap_select(int count, fd_set* read, fd_set* write, fd_set* except, timeval* timeout) {
    auto& answers = SocketCalls::instance().select;
    if (answers.empty()) {
        return __real_select(count, read, write, except, timeout);
    }
    const auto answer = std::move(answers.front());
    answers.pop_front();
    return answer();
}

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*), void* value) {
    const int error = SocketCalls::instance().threadError;
    if (error == 0) {
        return __real_pthread_create(thread, attributes, routine, value);
    }
    *thread = pthread_self(); // nothing that the caller may rely on
    return error;
}

} // extern "C"
