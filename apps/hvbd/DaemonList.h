// The daemon's list of allowed and blocked sites, read and replaced over the bus as an administrator's client does.
#pragma once

#include "apps/hvbd/ListEdit.h"
#include "base/Mutex.h"
#include "base/UniqueFd.h"
#include "platform/hvbhelpers/BusConnection.h"

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

namespace HVB {
class CommandData;
class CommandResult;
} // namespace HVB

namespace HVB::hub {

/// The list cannot be changed now, or not so. The text says why, and what to do.
class ListError : public std::runtime_error {
public:
    enum class Kind {
        Trouble, ///< the same may succeed later
        Refused, ///< this machine does not allow it
    };
    ListError(Kind kind, const std::string& text) : std::runtime_error(text), m_kind(kind) {}

    Kind kind() const { return m_kind; }

private:
    Kind m_kind;
};

/// Ends the waits of another thread, those to come as well. Threads: thread-safe. Owner: who outlives that thread.
class CallBreaker {
public:
    /// @throws HVBException when the system gives no descriptor.
    CallBreaker();

    void trip() noexcept;

    /// Can be read once this was tripped.
    int fd() const { return m_tripped.get(); }
    /// The socket whose calls are to be ended. @throws HVBException with -ECANCELED once tripped.
    void watch(int socket);
    /// There is none any more.
    void forget() noexcept;

private:
    const Sentrel::UniqueFd m_tripped;
    Sentrel::Mutex m_mutex;
    int m_socket SENTREL_GUARDED_BY(m_mutex) = -1;
    bool m_isTripped SENTREL_GUARDED_BY(m_mutex) = false;
};

/// One connection to the bus, on which the daemon and the hub are asked. Each operation waits.
/// Threads: one at a time. Owner: a local; the breaker outlives it. All operations throw HVBException and ListError.
class DaemonList {
public:
    DaemonList(const std::string& socketPath, CallBreaker& breaker);
    ~DaemonList();
    DaemonList(const DaemonList&) = delete;
    DaemonList& operator=(const DaemonList&) = delete;

    /// Refuses on a machine that is managed and whose enrolment keeps grants to the site, and where nobody can tell.
    void requireLocalGrants();

    /// How @p entry stands in the list that is in force and stored.
    EntryStanding standing(const std::string& entry);

    /// Changes a list; gives whether it did.
    using Edit = std::function<bool(EntryList&)>;

    /// Has the daemon replace its list by what @p edit makes of it, in one change; none when it makes nothing. Begins
    /// anew when the list changed in the meantime. Afterwards @p edit has nothing left to do.
    void change(const Edit& edit);

private:
    EntryList settledList();
    EntryList listInForce();
    void send(CommandData& command, CommandResult& result, bus::Deadline deadline);

    CallBreaker& m_breaker;
    bus::BusPtr m_bus;
};

} // namespace HVB::hub
