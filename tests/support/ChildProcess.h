// A program that a test runs.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace testing_support {

struct ChildOptions {
    std::vector<std::string> arguments;   ///< without the program's name
    std::vector<std::string> environment; ///< "NAME=value", added to the test's own
    std::string outputFile;               ///< gets stdout and stderr, appended; empty: /dev/null
    std::optional<uid_t> uid;             ///< runs as this user. Requires root
    std::optional<gid_t> gid;             ///< runs in this group alone. Requires root
};

/// How a child ended: its exit status, or the negative number of the signal that killed it.
using ExitStatus = int;

/// A child process. It is killed and reaped, by its pid, when this object or the thread that made it ends.
class ChildProcess {
public:
    /// @throws std::system_error when the program cannot be run.
    ChildProcess(const std::string& program, ChildOptions options);
    ChildProcess(ChildProcess&& other) noexcept;
    ChildProcess& operator=(ChildProcess&&) = delete;
    ~ChildProcess();

    pid_t pid() const { return m_pid; }
    bool isRunning() { return !waitUntil(std::chrono::steady_clock::now()).has_value(); }

    /// Sends a signal; nothing when the child has ended.
    void kill(int signal);

    /// Stops it with SIGSTOP and returns when it does not run any more; SIGCONT lets it go on.
    void hold();

    /// Waits for the end. @return how it ended, nothing at the deadline.
    std::optional<ExitStatus> waitUntil(std::chrono::steady_clock::time_point deadline);

    /// Asks it to end, waits for that, and kills it when it does not. @return how it ended.
    ExitStatus terminate();

    /// What it wrote until now.
    std::string output() const;

private:
    ExitStatus reap();

    std::string m_outputFile;
    pid_t m_pid = -1;
    int m_pidFd = -1;
    std::optional<ExitStatus> m_status;
};

} // namespace testing_support
