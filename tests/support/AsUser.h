// Doing something as another user of the machine.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace testing_support {

/// A user that is nobody's: neither root nor one whom a service runs as.
inline constexpr uid_t kNobody = 65534;
inline constexpr gid_t kNogroup = 65534;

/// Whether this process may act as others. A test that needs it and cannot skips itself, and says so.
bool canActAsOthers();

/// Runs @p work in a child process with this user, group and further groups. @return what it returned, or
/// "threw: …" and "died: …" when it did not. Requires canActAsOthers; @p work must not make threads.
std::string asUser(uid_t uid, gid_t gid, const std::vector<gid_t>& groups, const std::function<std::string()>& work);

/// While it lives, this thread alone has another effective user, so a socket that it connects is that user's. Unlike
/// asUser it makes no process, and so may be used beside threads. Threads: the one that made it. Owner: a local.
/// Requires canActAsOthers.
class ConnectingAs {
public:
    /// @throws std::system_error when the system does not allow it.
    explicit ConnectingAs(uid_t uid);
    ConnectingAs(const ConnectingAs&) = delete;
    ConnectingAs& operator=(const ConnectingAs&) = delete;
    ~ConnectingAs();
};

/// As a user whom no rule names.
inline std::string asNobody(const std::function<std::string()>& work) {
    return asUser(kNobody, kNogroup, {}, work);
}

} // namespace testing_support
