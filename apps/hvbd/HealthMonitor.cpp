// Who is well: every module on the bus is asked at each interval.
//
// A timer starts a round: the bus's list of names gives the modules that are there, and each gets one asynchronous
// call with a deadline. A module whose last call is still under way is not asked again. An error that says that the
// name has no owner means gone; any other error, a malformed answer and the deadline mean silent. The board keeps what
// is known of each and says what is news, and only news gets a line in the system log.
//
// All of this runs on the one loop. When the bus is lost, all that is under way is dropped with the connection. The
// timer counts time asleep too, so that a machine that wakes up is checked soon.
#include "apps/hvbd/HealthMonitor.h"

#include "apps/hvbd/CallbackGuard.h"
#include "apps/hvbd/HvbdLimits.h"
#include "hub/HubIds.h"

#include <algorithm>
#include <ctime>
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

HealthMonitor::HealthMonitor(sd_event& event, std::chrono::seconds interval, const SystemLog& log,
                             std::function<void()> eachRound)
    : m_event(event), m_interval(interval), m_log(log), m_eachRound(std::move(eachRound)) {}

HealthMonitor::~HealthMonitor() = default;

void HealthMonitor::connected(sd_bus& bus) {
    m_bus = &bus;
    startTimer(std::min(m_interval, kFirstHealthCheck));
}

void HealthMonitor::lost() noexcept {
    m_timer.reset();
    m_listing.reset();
    m_checks.clear();
    m_bus = nullptr;
}

void HealthMonitor::startTimer(microseconds pause) {
    constexpr std::uint64_t accuracy = 100'000; // microseconds; lets the kernel join wake-ups
    sd_event_source* source = nullptr;
    bus::check(sd_event_add_time_relative(&m_event, &source, CLOCK_BOOTTIME, static_cast<std::uint64_t>(pause.count()),
                                          accuracy, onTimer, this),
               "cannot set a timer");
    m_timer.reset(source);
}

int HealthMonitor::onTimer(sd_event_source* /*source*/, std::uint64_t /*usec*/, void* self) {
    auto& monitor = *static_cast<HealthMonitor*>(self);
    return logAndIgnore(monitor.m_log, kDoing, [&] {
        monitor.startTimer(monitor.m_interval);
        monitor.m_eachRound();
        monitor.listModules();
    });
}

void HealthMonitor::listModules() {
    sd_bus_slot* slot = nullptr;
    bus::check(sd_bus_call_method_async(m_bus, &slot, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                        "org.freedesktop.DBus", "ListNames", onNames, this, nullptr),
               "cannot list the modules");
    m_listing.reset(slot);
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
    for (const HealthNews& news : m_board.notePresent(modules, std::chrono::system_clock::now())) {
        tell(news);
    }
    for (const int moduleId : modules) {
        // With a short interval a check may still be under way; its deadline comes.
        if (m_checks.find(moduleId) == m_checks.end()) {
            checkOne(moduleId);
        }
    }
}

void HealthMonitor::checkOne(int moduleId) {
    const bus::MessagePtr call = bus::newCall(*m_bus, bus::moduleName(moduleId), bus::modulePath(moduleId),
                                              bus::kModuleInterface, bus::kHealthCheckMember);
    Check& check = m_checks[moduleId];
    check.monitor = this;
    check.moduleId = moduleId;
    const microseconds deadline = std::min(m_interval, kHealthCheckDeadline);
    sd_bus_slot* slot = nullptr;
    const int result =
        sd_bus_call_async(m_bus, &slot, call.get(), onAnswer, &check, static_cast<std::uint64_t>(deadline.count()));
    if (result < 0) {
        m_checks.erase(moduleId);
    }
    bus::check(result, "cannot ask module " + std::to_string(moduleId));
    check.slot.reset(slot);
}

int HealthMonitor::onAnswer(sd_bus_message* reply, void* userdata, sd_bus_error* /*error*/) {
    const auto& check = *static_cast<Check*>(userdata);
    HealthMonitor& monitor = *check.monitor;
    const int moduleId = check.moduleId;
    return logAndIgnore(monitor.m_log, kDoing, [&] {
        monitor.m_checks.erase(moduleId);
        monitor.judge(moduleId, *reply);
    });
}

void HealthMonitor::judge(int moduleId, sd_bus_message& reply) {
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
    if (const auto news = m_board.note(moduleId, health, detail, std::chrono::system_clock::now())) {
        tell(*news);
    }
}

void HealthMonitor::tell(const HealthNews& news) const {
    m_log.write(news.priority, news.line);
}

} // namespace HVB::hub
