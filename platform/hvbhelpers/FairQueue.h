// Jobs that wait for a callback thread, in an order that nobody can take from the others.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <list>
#include <map>
#include <string>

namespace HVB::detail {

/// Who sent a call: the bus says so, the message does not.
struct Sender {
    uid_t user = 0;
    std::string connection; ///< unique name on the bus; empty for the library's own jobs
};

/// Takes the users in turn, within a user the connections in turn, and within a connection the jobs as they came. What
/// one user sends makes only that user wait, and what one connection sends mostly that connection. Threads: one at a
/// time. Owner: the workers.
class FairQueue {
public:
    /// What a worker runs. The argument says whether callbacks may still begin; if not, the job only answers.
    using Job = std::function<void(bool deliver)>;

    struct Bounds {
        std::size_t jobsOfUser;    ///< that wait
        std::size_t bytesOfUser;   ///< of the messages of these; one message is always taken
        std::size_t runningOfUser; ///< jobs of one user at the same time
    };

    explicit FairQueue(const Bounds& bounds) : m_bounds(bounds) {}

    /// @return false when as much of this user waits as may. @throws std::bad_alloc; then nothing has changed.
    bool push(const Sender& sender, std::size_t bytes, Job job);

    /// Whether there is a job that may run now.
    bool hasReady() const;
    bool isEmpty() const { return m_turns.empty(); }

    struct Taken {
        uid_t user = 0;
        Job job;
    };
    /// Takes the next job out; needs no memory. Requires that there is a ready one, and that finished follows.
    Taken take() noexcept;
    /// Notes that a job of this user has ended.
    void finished(uid_t user) noexcept;

private:
    struct Waiting {
        std::size_t bytes;
        Job job;
    };
    struct Connection {
        std::string name;
        std::list<Waiting> jobs;
    };
    struct User {
        std::list<Connection> turns; ///< those with jobs; the bus bounds how many a user has
        std::size_t jobs = 0;
        std::size_t bytes = 0;
        std::size_t running = 0;
    };

    std::list<uid_t>::const_iterator nextReady() const;

    // constant after construction
    const Bounds m_bounds;
    // plain, single access
    std::map<uid_t, User> m_users; ///< those with jobs that wait or run
    std::list<uid_t> m_turns;      ///< those with jobs that wait
};

} // namespace HVB::detail
