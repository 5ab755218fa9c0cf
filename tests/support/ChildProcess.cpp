#include "tests/support/ChildProcess.h"

#include "tests/support/Eventually.h"
#include "tests/support/Files.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

namespace testing_support {
namespace {

constexpr int kCannotRun = 127;

std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> result;
    result.reserve(strings.size() + 1);
    for (std::string& text : strings) {
        result.push_back(text.data());
    }
    result.push_back(nullptr);
    return result;
}

std::vector<std::string> environmentWith(const std::vector<std::string>& added) {
    std::vector<std::string> result = added;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        result.emplace_back(*entry);
    }
    return result;
}

/// Runs in the child of a process that may have threads: only what is safe there.
[[noreturn]] void become(const ChildOptions& options, int output, char* const* arguments, char* const* environment) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    ::dup2(output, STDOUT_FILENO);
    ::dup2(output, STDERR_FILENO);
    const bool changed = (!options.gid || (::setgroups(0, nullptr) == 0 && ::setgid(*options.gid) == 0)) &&
                         (!options.uid || ::setuid(*options.uid) == 0);
    if (changed) {
        // After the change of user, which would undo it: a test that crashes leaves no process behind.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::execvpe(arguments[0], arguments, environment);
    }
    ::_exit(kCannotRun);
}

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

} // namespace

ChildProcess::ChildProcess(const std::string& program, ChildOptions options) : m_outputFile(options.outputFile) {
    std::vector<std::string> arguments = std::move(options.arguments);
    arguments.insert(arguments.begin(), program);
    std::vector<std::string> environment = environmentWith(options.environment);
    const std::vector<char*> argumentPointers = pointers(arguments);
    const std::vector<char*> environmentPointers = pointers(environment);
    const char* const file = m_outputFile.empty() ? "/dev/null" : m_outputFile.c_str();
    constexpr mode_t mode = 0644;
    const int output = ::open(file, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, mode);
    if (output < 0) {
        fail("cannot open the output file of a child");
    }
    m_pid = ::fork();
    if (m_pid == 0) {
        become(options, output, argumentPointers.data(), environmentPointers.data());
    }
    ::close(output);
    if (m_pid < 0) {
        fail("fork");
    }
    // glibc 2.36 declares its wrapper without C linkage.
    m_pidFd = static_cast<int>(::syscall(SYS_pidfd_open, m_pid, 0));
    if (m_pidFd < 0) {
        fail("pidfd_open");
    }
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : m_outputFile(std::move(other.m_outputFile)), m_pid(std::exchange(other.m_pid, -1)),
      m_pidFd(std::exchange(other.m_pidFd, -1)), m_status(other.m_status) {}

ChildProcess::~ChildProcess() {
    if (m_pid > 0 && !m_status) {
        kill(SIGKILL);
        reap();
    }
    if (m_pidFd >= 0) {
        ::close(m_pidFd);
    }
}

void ChildProcess::kill(int signal) {
    if (!m_status) {
        ::kill(m_pid, signal);
    }
}

void ChildProcess::hold() {
    kill(SIGSTOP);
    siginfo_t info{};
    while (waitid(P_PID, static_cast<id_t>(m_pid), &info, WSTOPPED) != 0 && errno == EINTR) {
    }
}

std::optional<ExitStatus> ChildProcess::waitUntil(std::chrono::steady_clock::time_point deadline) {
    while (!m_status) {
        using std::chrono::milliseconds;
        const auto left = std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now()).count();
        pollfd ended{m_pidFd, POLLIN, 0};
        const int ready = ::poll(&ended, 1, left > 0 ? static_cast<int>(left) : 0);
        if (ready > 0) {
            reap();
        } else if (ready == 0) {
            return std::nullopt;
        }
    }
    return m_status;
}

ExitStatus ChildProcess::terminate() {
    kill(SIGTERM);
    if (!waitUntil(patience())) {
        kill(SIGKILL);
        reap();
    }
    return *m_status;
}

ExitStatus ChildProcess::reap() {
    int status = 0;
    while (::waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
    }
    m_status = WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
    return *m_status;
}

std::string ChildProcess::output() const {
    return readFile(m_outputFile);
}

} // namespace testing_support
