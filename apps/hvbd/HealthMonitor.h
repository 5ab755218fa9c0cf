// Asks every module on the bus whether it is well, when it comes and in rounds, and notices when one goes.
#pragma once

#include "apps/hvbd/HealthBoard.h"
#include "apps/hvbd/LoopHandles.h"
#include "apps/hvbd/SilenceMarks.h"
#include "apps/hvbd/SystemLog.h"

#include <chrono>
#include <functional>
#include <map>
#include <string>

namespace HVB::hub {

/// A module that comes to the bus, or whose name goes to another process, has its HealthCheck called at once; one that
/// goes is gone at once: the bus tells. Besides, every interval all modules on the bus are listed and asked, at the
/// same time and without waiting. Each answer has its own deadline, so one module that hangs delays nobody. Changes go
/// to the system log. Threads: the loop's. Owner: the program; what it was given outlives it.
class HealthMonitor {
public:
    /// @param eachRound is called at the begin of each round.
    /// @param marks hears of the outcome of each check.
    HealthMonitor(sd_event& event, std::chrono::seconds interval, const SystemLog& log, SilenceMarks& marks,
                  std::function<void()> eachRound);
    ~HealthMonitor();
    HealthMonitor(const HealthMonitor&) = delete;
    HealthMonitor& operator=(const HealthMonitor&) = delete;

    /// Begins checking over @p bus. Modules known from an earlier connection get a pause to come back to the bus before
    /// they count as gone. @throws HVBException
    void connected(sd_bus& bus);
    /// Forgets the connection and the checks under way on it. The states stay.
    void lost() noexcept;

    const HealthBoard& board() const { return m_board; }

private:
    using Time = std::chrono::steady_clock::time_point;
    enum class Absent { AreGone, MayCome };

    struct Check {
        HealthMonitor* monitor;
        int moduleId;
        Time newcomerUntil; ///< errors before this are no answer yet
        SlotPtr slot;
        SourcePtr again; ///< set while the module is to be asked again

        bool isUnderWay() const { return slot != nullptr || again != nullptr; }
    };

    static int onTimer(sd_event_source* source, std::uint64_t usec, void* self);
    static int onNames(sd_bus_message* reply, void* self, sd_bus_error* error);
    static int onOwnerChanged(sd_bus_message* signal, void* self, sd_bus_error* error);
    static int onAnswer(sd_bus_message* reply, void* check, sd_bus_error* error);
    static int onAgain(sd_event_source* source, std::uint64_t usec, void* check);

    SourcePtr timer(std::chrono::microseconds pause, sd_event_time_handler_t handler, void* data);
    void watchNames();
    void listModules(Absent absent);
    void checkAll(sd_bus_message& names);
    void takeOwnerChange(sd_bus_message& signal);
    void startCheck(int moduleId, Time newcomerUntil);
    void ask(Check& check);
    void takeAnswer(int moduleId, sd_bus_message& reply);
    void note(int moduleId, Health health, const std::string& detail);
    void tell(const HealthNews& news) const;

    // Constant after construction.
    sd_event& m_event;
    const std::chrono::seconds m_interval;
    const SystemLog& m_log;
    SilenceMarks& m_marks;
    const std::function<void()> m_eachRound;
    // Plain, single access.
    sd_bus* m_bus = nullptr; ///< null without a connection
    SourcePtr m_timer;
    SlotPtr m_names;
    SlotPtr m_listing;
    Absent m_absent = Absent::AreGone; ///< for the listing under way
    std::map<int, Check> m_checks;     ///< under way; sd-bus and sd-event hold their addresses
    HealthBoard m_board;
};

} // namespace HVB::hub
