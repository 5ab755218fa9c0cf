#include "tests/support/OtherProcess.h"

#include "hub/Exceptions.h"

#include <grp.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <string>

namespace testing_support {
namespace {

[[noreturn]] void live(uid_t uid, gid_t gid, const std::vector<gid_t>& groups, int pipe,
                       const std::function<void(const std::function<void()>&)>& setUp) {
    const bool changed = ::getuid() == uid ||
                         (::setgroups(groups.size(), groups.data()) == 0 && ::setgid(gid) == 0 && ::setuid(uid) == 0);
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    try {
        if (changed) {
            setUp([pipe] { (void)!::write(pipe, "+", 1); });
            for (;;) {
                ::pause();
            }
        }
    } catch (const HVB::HVBException& exception) {
        std::fprintf(stderr, "the other process threw: %s\n", exception.message().c_str());
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "the other process threw: %s\n", exception.what());
    }
    ::_exit(1);
}

} // namespace

OtherProcess::OtherProcess(uid_t uid, gid_t gid, const std::vector<gid_t>& groups,
                           const std::function<void(const std::function<void()>& ready)>& setUp) {
    std::array<int, 2> ends{};
    if (::pipe(ends.data()) != 0) {
        throw std::runtime_error("no pipe");
    }
    m_pid = ::fork();
    if (m_pid == 0) {
        ::close(ends[0]);
        live(uid, gid, groups, ends[1], setUp);
    }
    ::close(ends[1]);
    char sign = 0;
    ssize_t size = 0;
    while ((size = ::read(ends[0], &sign, 1)) < 0 && errno == EINTR) {
    }
    ::close(ends[0]);
    if (size != 1) {
        ::waitpid(m_pid, nullptr, 0);
        throw std::runtime_error("the other process ended before it was ready");
    }
}

OtherProcess::~OtherProcess() {
    ::kill(m_pid, SIGKILL);
    while (::waitpid(m_pid, nullptr, 0) < 0 && errno == EINTR) {
    }
}

} // namespace testing_support
