// A second process of a test's own.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

namespace testing_support {

/// Another process that holds a file's lock for this object's lifetime.
/// Threads: the test's. Owner: a test; made while the test has one thread.
class LockHolder {
public:
    explicit LockHolder(const std::string& path) {
        int ready[2];
        int done[2];
        if (pipe(ready) != 0 || pipe(done) != 0 || (m_pid = fork()) < 0) {
            throw std::runtime_error("no second process");
        }
        if (m_pid == 0) {
            close(done[1]);
            holdLock(path, ready[1], done[0]);
        }
        close(ready[1]);
        close(done[0]);
        m_done = done[1];
        char answer = 'n';
        const bool answered = read(ready[0], &answer, 1) == 1;
        close(ready[0]);
        if (!answered || answer != 'y') {
            throw std::runtime_error("the second process got no lock");
        }
    }
    ~LockHolder() {
        close(m_done);
        waitpid(m_pid, nullptr, 0);
    }
    LockHolder(const LockHolder&) = delete;
    LockHolder& operator=(const LockHolder&) = delete;

private:
    [[noreturn]] static void holdLock(const std::string& path, int ready, int done) {
        const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        const char answer = fd >= 0 && lockf(fd, F_LOCK, 0) == 0 ? 'y' : 'n';
        static_cast<void>(!write(ready, &answer, 1));
        char nothing = 0;
        static_cast<void>(!read(done, &nothing, 1)); // ends when the test lets go or dies
        _exit(0);
    }

    pid_t m_pid = -1;
    int m_done = -1;
};

/// The exit value of @p work, run in a process of its own; -1 when that ended otherwise.
template <class Work>
int exitValueOf(Work work) {
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(work());
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}

} // namespace testing_support
