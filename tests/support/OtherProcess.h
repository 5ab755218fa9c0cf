// A piece of a test that runs in a process of its own, as another user, for as long as the test wants.
#pragma once

#include <sys/types.h>

#include <functional>
#include <vector>

namespace testing_support {

/// A child process that has set something up and keeps it until this object ends.
class OtherProcess {
public:
    /// Returns when @p setUp has called its argument, after which it may go on or return; the process stays in either
    /// case. Requires root when the user is another. @throws std::runtime_error when it ended or threw before that.
    OtherProcess(uid_t uid, gid_t gid, const std::vector<gid_t>& groups,
                 const std::function<void(const std::function<void()>& ready)>& setUp);
    OtherProcess(const OtherProcess&) = delete;
    OtherProcess& operator=(const OtherProcess&) = delete;
    /// Kills it, by its pid.
    ~OtherProcess();

private:
    pid_t m_pid = -1;
};

} // namespace testing_support
