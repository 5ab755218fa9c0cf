#include "tests/support/AsUser.h"

#include "hub/Exceptions.h"

#include <grp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <system_error>

namespace testing_support {
namespace {

std::string outcomeOf(const std::function<std::string()>& work) {
    try {
        return work();
    } catch (const HVB::HVBException& exception) {
        return "threw: " + exception.message();
    } catch (const std::exception& exception) {
        return std::string("threw: ") + exception.what();
    }
}

[[noreturn]] void workAndTell(uid_t uid, gid_t gid, const std::vector<gid_t>& groups, int pipe,
                              const std::function<std::string()>& work) {
    std::string outcome = "died: could not become the user";
    if (::setgroups(groups.size(), groups.data()) == 0 && ::setgid(gid) == 0 && ::setuid(uid) == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        outcome = outcomeOf(work);
    }
    const ssize_t written = ::write(pipe, outcome.data(), outcome.size());
    ::_exit(written == static_cast<ssize_t>(outcome.size()) ? 0 : 1);
}

std::string readAll(int pipe) {
    std::string text;
    std::array<char, 4096> buffer{};
    for (;;) {
        const ssize_t size = ::read(pipe, buffer.data(), buffer.size());
        if (size > 0) {
            text.append(buffer.data(), static_cast<std::size_t>(size));
        } else if (size == 0 || errno != EINTR) {
            return text;
        }
    }
}

} // namespace

// The library's seteuid changes all threads; the system call changes the caller.

ConnectingAs::ConnectingAs(uid_t uid) {
    if (::syscall(SYS_setresuid, -1, uid, -1) != 0) {
        throw std::system_error(errno, std::generic_category(), "setresuid");
    }
}

ConnectingAs::~ConnectingAs() {
    if (::syscall(SYS_setresuid, -1, 0, -1) != 0) {
        std::abort(); // the rest of the tests would run as another user
    }
}

bool canActAsOthers() {
    return ::geteuid() == 0;
}

std::string asUser(uid_t uid, gid_t gid, const std::vector<gid_t>& groups, const std::function<std::string()>& work) {
    std::array<int, 2> ends{};
    if (::pipe(ends.data()) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    const pid_t child = ::fork();
    if (child < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child == 0) {
        ::close(ends[0]);
        workAndTell(uid, gid, groups, ends[1], work);
    }
    ::close(ends[1]);
    std::string outcome = readAll(ends[0]);
    ::close(ends[0]);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status == 0 ? outcome : "died: status " + std::to_string(status) + " after: " + outcome;
}

} // namespace testing_support
