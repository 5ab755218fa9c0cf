// Requests for access and grants, on the bus: the methods of docs/hub.md's object for them.
#pragma once

#include "apps/hvbd/AccessBook.h"
#include "apps/hvbd/ListWorker.h"
#include "apps/hvbd/LoopHandles.h"
#include "apps/hvbd/SystemLog.h"
#include "platform/hvbhelpers/BusConnection.h"

#include <chrono>
#include <cstdint>
#include <ctime>
#include <deque>
#include <functional>
#include <list>
#include <span>
#include <string>
#include <vector>

namespace HVB::hub {

/// Takes what users ask for, and what administrators answer. A grant is an entry in the daemon's list that is entered,
/// and taken out again when its time is over: also one that was over while hvbd was not there, and again and again
/// until the daemon takes the change.
///
/// Who calls is what the bus tells of the connection. Changes of the list are made one after the other; those that wait
/// are bounded.
///
/// Threads: the loop's. Owner: the program; what it was given outlives it.
class AccessService {
public:
    /// The time of day in microseconds since the epoch.
    using Clock = std::function<std::int64_t()>;
    static std::int64_t systemTime();

    AccessService(sd_event& event, AccessBook& book, ListWorker& worker, const SystemLog& log,
                  Clock clock = systemTime);
    ~AccessService();
    AccessService(const AccessService&) = delete;
    AccessService& operator=(const AccessService&) = delete;

    /// Serves @p bus from now on, and takes out what is over. @throws HVBException
    void connected(sd_bus& bus);
    /// Drops the calls that wait: their senders have gone with the connection. A change that has begun goes on.
    void lost() noexcept;

private:
    using Handler = void (AccessService::*)(sd_bus_message& call, uid_t user);
    /// A call whose sender's user the bus is asked for.
    struct UnknownCall {
        AccessService& service;
        bus::MessagePtr call;
        Handler handler;
        SlotPtr question;
    };
    /// A grant that is to be made or ended.
    struct Change {
        bus::MessagePtr call; ///< null once nobody waits
        uid_t by = 0;
        NewGrant grant;            ///< of one that begins, without what was before
        std::uint64_t seconds = 0; ///< the same: how long; 0: for good
        std::uint64_t id = 0;      ///< of the grant, once it is written down
        bool hasBegun = false;
    };

    static const sd_bus_vtable kVtable[];
    template <Handler handler>
    static int onCall(sd_bus_message* call, void* self, sd_bus_error* error);
    static int onUser(sd_bus_message* reply, void* unknown, sd_bus_error* error);
    static int onEndTime(sd_event_source* source, std::uint64_t usec, void* self);

    void askForUser(sd_bus_message& call, Handler handler);
    void handle(sd_bus_message& call, Handler handler, uid_t user);
    // Handlers. Each answers its call, at once or later.
    void ask(sd_bus_message& call, uid_t user);
    void readOwn(sd_bus_message& call, uid_t user);
    void readAll(sd_bus_message& call, uid_t user);
    void deny(sd_bus_message& call, uid_t user);
    void grant(sd_bus_message& call, uid_t user);
    void readGrants(sd_bus_message& call, uid_t user);
    void revoke(sd_bus_message& call, uid_t user);

    void goOn() noexcept;
    void startChange();
    void startEnding();
    void looked(const ListOutcome& outcome);
    void enter();
    void entered(const ListOutcome& outcome);
    void taken(const std::vector<GrantEnd>& ends, const ListOutcome& outcome);
    void endChange(const char* errorName, const std::string& trouble) noexcept;
    void answerRevokers(std::span<const GrantEnd> ends, const std::string& trouble);
    /// @param time microseconds of @p clock.
    void wakeAt(clockid_t clock, std::int64_t time);
    void tellOfChange() noexcept;

    // Constant after construction.
    sd_event& m_event;
    AccessBook& m_book;
    ListWorker& m_worker;
    const SystemLog& m_log;
    const Clock m_clock;
    // Plain, single access.
    sd_bus* m_bus = nullptr; ///< null without a connection
    SlotPtr m_object;
    std::list<UnknownCall> m_unknown;
    std::deque<Change> m_changes; ///< grants to be made; the first one may be under way
    std::deque<Change> m_revokers;
    std::uint64_t m_changeCount;
    std::chrono::seconds m_pause;                      ///< before the next try of an ending
    std::chrono::steady_clock::time_point m_retryAt{}; ///< when that is
    SourcePtr m_timer;
    TroubleReport m_trouble;
};

} // namespace HVB::hub
