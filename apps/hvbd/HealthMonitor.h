// Asks every module on the bus in turn whether it is well.
#pragma once

#include "apps/hvbd/EventLoop.h"
#include "apps/hvbd/HealthBoard.h"
#include "apps/hvbd/SystemLog.h"

#include <chrono>
#include <functional>
#include <map>

namespace HVB::hub {

/// Every interval: lists the modules on the bus and calls each one's HealthCheck, all at once and without waiting.
/// Each answer has its own deadline, so one module that hangs delays nobody. Changes go to the system log.
/// Threads: the loop's. Owner: the program; what it was given outlives it.
class HealthMonitor {
public:
    /// @param eachRound is called at the begin of each round.
    HealthMonitor(sd_event& event, std::chrono::seconds interval, const SystemLog& log,
                  std::function<void()> eachRound);
    ~HealthMonitor();
    HealthMonitor(const HealthMonitor&) = delete;
    HealthMonitor& operator=(const HealthMonitor&) = delete;

    /// Begins checking over @p bus, after a pause that gives the modules time to come to the bus as well.
    void connected(sd_bus& bus);
    /// Forgets the connection and the checks under way on it. The states stay.
    void lost() noexcept;

    const HealthBoard& board() const { return m_board; }

private:
    struct Check {
        HealthMonitor* monitor;
        int moduleId;
        SlotPtr slot;
    };

    static int onTimer(sd_event_source* source, std::uint64_t usec, void* self);
    static int onNames(sd_bus_message* reply, void* self, sd_bus_error* error);
    static int onAnswer(sd_bus_message* reply, void* check, sd_bus_error* error);

    void startTimer(std::chrono::microseconds pause);
    void listModules();
    void checkAll(sd_bus_message& names);
    void checkOne(int moduleId);
    void judge(int moduleId, sd_bus_message& reply);
    void tell(const HealthNews& news) const;

    // Constant after construction.
    sd_event& m_event;
    const std::chrono::seconds m_interval;
    const SystemLog& m_log;
    const std::function<void()> m_eachRound;
    // Plain, single access.
    sd_bus* m_bus = nullptr; ///< null without a connection
    SourcePtr m_timer;
    SlotPtr m_listing;
    std::map<int, Check> m_checks; ///< under way; sd-bus holds their addresses
    HealthBoard m_board;
};

} // namespace HVB::hub
