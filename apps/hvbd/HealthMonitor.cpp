// Who is well: every module is asked when it comes to the bus, and at each interval.
//
// The bus tells when a module's name gets or loses its owner. The subscription stands before the first list of names is
// asked for, and the bus works in order: who is not in the list is told of later. A module that comes is asked at once.
// It may have its name before it can answer, so an error in its first seconds only has it asked again. A name that goes
// to another process is a new module: what was asked of the old one is dropped.
//
// The rounds are for modules that change, and the safety net: a timer starts one, the bus's list of names gives the
// modules that are there, and each gets one asynchronous call with a deadline. A module whose last call is still under
// way is not asked again. An error that says that the name has no owner means gone; any other error, a malformed answer
// and the deadline mean silent. The board keeps what is known of each and says what is news, and only news gets a line
// in the system log.
//
// All of this runs on the one loop. When the bus is lost, all that is under way is dropped with the connection. The
// timer counts time asleep too, so that a machine that wakes up is checked soon.
#include "apps/hvbd/HealthMonitor.h"

#include "apps/hvbd/CallbackGuard.h"
#include "apps/hvbd/HvbdLimits.h"
#include "hub/HubIds.h"

#include <algorithm>
#include <ctime>
#include <optional>
#include <set>
#include <string>
#include <utility>

namespace HVB::hub {
namespace {

using std::chrono::microseconds;

constexpr const char* kDoing = "a health check";

std::string describe(const sd_bus_error& error) {
    return std::string(error.message != nullptr ? error.message
                       : error.name != nullptr  ? error.name
                                                : "no reason given");
}

/// Whether an error says that the name has no owner any more.
bool meansGone(const sd_bus_error& error) {
    return sd_bus_error_has_name(&error, SD_BUS_ERROR_SERVICE_UNKNOWN) > 0 ||
           sd_bus_error_has_name(&error, SD_BUS_ERROR_NAME_HAS_NO_OWNER) > 0;
}

std::set<int> modulesAmong(sd_bus_message& names) {
    std::set<int> modules;
    bus::check(sd_bus_message_enter_container(&names, 'a', "s"), "cannot read the list of names");
    const char* name = nullptr;
    while (sd_bus_message_read(&names, "s", &name) > 0) {
        if (const auto id = moduleIdOf(name); id && *id != MODULE_HUB) {
            modules.insert(*id);
        }
    }
    return modules;
}

} // namespace

HealthMonitor::HealthMonitor(sd_event& event, std::chrono::seconds interval, const SystemLog& log, SilenceMarks& marks,
                             std::function<void()> eachRound)
    : m_event(event), m_interval(interval), m_log(log), m_marks(marks), m_eachRound(std::move(eachRound)) {}

HealthMonitor::~HealthMonitor() = default;

void HealthMonitor::connected(sd_bus& bus) {
    m_bus = &bus;
    watchNames();
    listModules(Absent::MayCome);
    m_timer = timer(m_board.entries().empty() ? m_interval : std::min(m_interval, kFirstHealthCheck), onTimer, this);
}

void HealthMonitor::lost() noexcept {
    m_timer.reset();
    m_names.reset();
    m_listing.reset();
    m_checks.clear();
    m_bus = nullptr;
}

SourcePtr HealthMonitor::timer(microseconds pause, sd_event_time_handler_t handler, void* data) {
    constexpr std::uint64_t accuracy = 100'000; // microseconds; lets the kernel join wake-ups
    sd_event_source* source = nullptr;
    bus::check(sd_event_add_time_relative(&m_event, &source, CLOCK_BOOTTIME, static_cast<std::uint64_t>(pause.count()),
                                          accuracy, handler, data),
               "cannot set a timer");
    return SourcePtr(source);
}

int HealthMonitor::onTimer(sd_event_source* /*source*/, std::uint64_t /*usec*/, void* self) {
    auto& monitor = *static_cast<HealthMonitor*>(self);
    return logAndIgnore(monitor.m_log, kDoing, [&] {
        monitor.m_timer = monitor.timer(monitor.m_interval, onTimer, self);
        monitor.m_eachRound();
        monitor.listModules(Absent::AreGone);
    });
}

void HealthMonitor::watchNames() {
    // With the sender, since anybody may send a signal of this name to this connection.
    constexpr const char* rule = "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
                                 "interface='org.freedesktop.DBus',member='NameOwnerChanged',"
                                 "arg0namespace='com.orvanta.hvb1'";
    sd_bus_slot* slot = nullptr;
    bus::check(sd_bus_add_match(m_bus, &slot, rule, onOwnerChanged, this), "cannot watch the modules' names");
    m_names.reset(slot);
}

int HealthMonitor::onOwnerChanged(sd_bus_message* signal, void* self, sd_bus_error* /*error*/) {
    auto& monitor = *static_cast<HealthMonitor*>(self);
    return logAndIgnore(monitor.m_log, kDoing, [&] { monitor.takeOwnerChange(*signal); });
}

void HealthMonitor::takeOwnerChange(sd_bus_message& signal) {
    const char* name = nullptr;
    const char* before = nullptr;
    const char* now = nullptr;
    bus::check(sd_bus_message_read(&signal, "sss", &name, &before, &now), "cannot read whose name changed");
    const std::optional<int> moduleId = moduleIdOf(name);
    if (!moduleId || *moduleId == MODULE_HUB) {
        return;
    }
    m_checks.erase(*moduleId); // it asks a process that has the name no more
    if (*now == '\0') {
        note(*moduleId, Health::Gone, "");
    } else {
        startCheck(*moduleId, std::chrono::steady_clock::now() + kNewcomerTime);
    }
}

void HealthMonitor::listModules(Absent absent) {
    sd_bus_slot* slot = nullptr;
    bus::check(sd_bus_call_method_async(m_bus, &slot, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                        "org.freedesktop.DBus", "ListNames", onNames, this, nullptr),
               "cannot list the modules");
    m_listing.reset(slot);
    m_absent = absent;
}

int HealthMonitor::onNames(sd_bus_message* reply, void* self, sd_bus_error* /*error*/) {
    auto& monitor = *static_cast<HealthMonitor*>(self);
    return logAndIgnore(monitor.m_log, kDoing, [&] {
        if (const sd_bus_error* error = sd_bus_message_get_error(reply)) {
            throw HVBException(-sd_bus_error_get_errno(error), "cannot list the modules: " + describe(*error));
        }
        monitor.checkAll(*reply);
    });
}

void HealthMonitor::checkAll(sd_bus_message& names) {
    const std::set<int> modules = modulesAmong(names);
    const bool isRound = m_absent == Absent::AreGone;
    if (isRound) {
        for (const HealthNews& news : m_board.notePresent(modules, std::chrono::system_clock::now())) {
            tell(news);
        }
    }
    for (const int moduleId : modules) {
        // One may be under way: the module has just come, or the interval is short. Its deadline comes.
        const auto check = m_checks.find(moduleId);
        if (check == m_checks.end() || !check->second.isUnderWay()) {
            startCheck(moduleId, isRound ? Time() : std::chrono::steady_clock::now() + kNewcomerTime);
        }
    }
}

void HealthMonitor::startCheck(int moduleId, Time newcomerUntil) {
    Check& check = m_checks[moduleId];
    check.monitor = this;
    check.moduleId = moduleId;
    check.newcomerUntil = newcomerUntil;
    ask(check);
}

void HealthMonitor::ask(Check& check) {
    const int moduleId = check.moduleId;
    const bus::MessagePtr call = bus::newCall(*m_bus, bus::moduleName(moduleId), bus::modulePath(moduleId),
                                              bus::kModuleInterface, bus::kHealthCheckMember);
    const microseconds deadline = std::min(m_interval, kHealthCheckDeadline);
    sd_bus_slot* slot = nullptr;
    bus::check(
        sd_bus_call_async(m_bus, &slot, call.get(), onAnswer, &check, static_cast<std::uint64_t>(deadline.count())),
        "cannot ask module " + std::to_string(moduleId));
    check.slot.reset(slot);
}

int HealthMonitor::onAnswer(sd_bus_message* reply, void* userdata, sd_bus_error* /*error*/) {
    const auto& check = *static_cast<Check*>(userdata);
    HealthMonitor& monitor = *check.monitor;
    return logAndIgnore(monitor.m_log, kDoing, [&] { monitor.takeAnswer(check.moduleId, *reply); });
}

int HealthMonitor::onAgain(sd_event_source* /*source*/, std::uint64_t /*usec*/, void* userdata) {
    auto& check = *static_cast<Check*>(userdata);
    HealthMonitor& monitor = *check.monitor;
    return logAndIgnore(monitor.m_log, kDoing, [&] {
        check.again.reset();
        monitor.ask(check);
    });
}

void HealthMonitor::takeAnswer(int moduleId, sd_bus_message& reply) {
    Health health = Health::Silent;
    std::string detail;
    int well = 0;
    if (const sd_bus_error* error = sd_bus_message_get_error(&reply)) {
        health = meansGone(*error) ? Health::Gone : Health::Silent;
        detail = describe(*error);
    } else if (sd_bus_message_read(&reply, "b", &well) > 0) {
        health = well != 0 ? Health::Well : Health::Unwell;
    } else {
        detail = "its answer is malformed";
    }
    Check& check = m_checks.at(moduleId);
    check.slot.reset();
    if (health == Health::Silent && std::chrono::steady_clock::now() < check.newcomerUntil) {
        check.again = timer(kNewcomerPause, onAgain, &check);
        return;
    }
    m_checks.erase(moduleId);
    note(moduleId, health, detail);
}

void HealthMonitor::note(int moduleId, Health health, const std::string& detail) {
    m_marks.note(moduleId, health);
    if (const auto news = m_board.note(moduleId, health, detail, std::chrono::system_clock::now())) {
        tell(*news);
    }
}

void HealthMonitor::tell(const HealthNews& news) const {
    m_log.write(news.priority, news.line);
}

} // namespace HVB::hub
