// Asks the hub for access to pages, where nobody has to wait for it.
#pragma once

#include "base/Mutex.h"
#include "base/WakeUp.h"
#include "browser/host/AccessMessages.h"
#include "platform/hvbhelpers/BusConnection.h"

#include <deque>
#include <string>
#include <thread>
#include <vector>

namespace Sentrel::host {

/// Puts questions to the hub one after the other, on a thread of its own and over a connection for each, since users
/// ask seldom. Each has its answer within 5 seconds.
/// Threads: those of its maker's and its own, as it says. Owner: the loop.
class AccessDesk {
public:
    /// How many questions wait at the most.
    static constexpr std::size_t kMaxWaiting = 8;

    /// @throws std::system_error when the system gives no thread or descriptor.
    explicit AccessDesk(std::string hubSocket);
    /// Drops what waits. Ends within the deadline of one question.
    ~AccessDesk();
    AccessDesk(const AccessDesk&) = delete;
    AccessDesk& operator=(const AccessDesk&) = delete;

    /// @return false, and the question gets no answer here, when too many wait. Threads: any.
    bool add(AccessQuestion question);

    /// Readable when there are answers that take has not given. Threads: any.
    int fd() const { return m_news.fd(); }
    /// Threads: any.
    std::vector<AccessAnswer> take();

private:
    struct Waiting {
        AccessQuestion question;
        HVB::bus::Deadline until;
    };

    // All of these run on the desk's thread.
    void run();
    AccessAnswer answer(const Waiting& waiting) const;
    AccessAnswer askHub(const Waiting& waiting) const;

    // Constant after construction.
    const std::string m_hubSocket;
    // Own locking.
    WakeUp m_stop;
    WakeUp m_news;

    Mutex m_mutex;
    ConditionVariable m_changed;
    bool m_isEnding SENTREL_GUARDED_BY(m_mutex) = false;
    std::deque<Waiting> m_waiting SENTREL_GUARDED_BY(m_mutex); ///< the first is the one that is being put
    std::vector<AccessAnswer> m_answers SENTREL_GUARDED_BY(m_mutex);

    std::thread m_thread; ///< last: it uses all the others
};

} // namespace Sentrel::host
