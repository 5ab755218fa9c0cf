// The callback thread: all calls into the module, one at a time.
//
// The network thread only leaves work here. The saved policy comes first, then what arrived, of which PolicyWork
// chooses one, then another attempt when one is due, then the statement, then one collection of properties for all that
// asked meanwhile. Work that comes before its service is registered waits for it.
//
// The lock is held to take work and to give it, never during a call, and not while a service is destroyed either:
// both are the module's code and may call back. An exception of the module ends its call, and not the thread.
#include "platform/hvbagent/AgentWorker.h"

#include "base/StartThread.h"
#include "base/Takeover.h"
#include "hub/Exceptions.h"
#include "platform/hvbagent/AgentLimits.h"
#include "platform/hvbagent/Encoding.h"
#include "platform/hvbagent/PropertyDocument.h"
#include "platform/stlogger/STLogger.h"

#include <syslog.h>

#include <algorithm>
#include <exception>
#include <utility>

namespace HVBEnterprise::agent {
namespace {

thread_local bool t_isWorker = false;

void logFailure(AgentLog& log, const char* what, const char* why) noexcept {
    try {
        log.error(std::string(what) + " failed: " + shortPrintable(why));
    } catch (...) {
        LogMsg(LOG_ERR, "agent: %s failed", what); // not even the line could be made
    }
}

/// Runs a call into the module. @return its result. When it throws, that is logged, and the result is false.
template <class Call>
bool callModule(AgentLog& log, const char* what, const Call& call) noexcept {
    try {
        return call();
    } catch (const BrokenOff&) {
        return false; // the client ends
    } catch (const HVB::HVBException& error) {
        logFailure(log, what, error.message().c_str());
    } catch (const std::exception& error) {
        logFailure(log, what, error.what());
    } catch (...) {
        logFailure(log, what, "unknown reason");
    }
    return false;
}

} // namespace

bool AgentWorker::isWorker() {
    return t_isWorker;
}

AgentWorker::AgentWorker(WorkerSettings settings, PolicyInForce policy, std::shared_ptr<Outbox> outbox,
                         std::shared_ptr<AgentLog> log)
    : m_settings(std::move(settings)), m_outbox(std::move(outbox)), m_log(std::move(log)),
      m_policies(m_settings.softwareId, std::move(policy), m_breakOff, m_log),
      m_nextInterval(Clock::now() + m_settings.interval) {}

void AgentWorker::begin() {
    const Sentrel::MutexLock lock(m_mutex);
    m_thread = Sentrel::startThread("agent-callback", [this] { work(); });
}

bool AgentWorker::take(std::unique_ptr<IAgentPropertyCollection>& service) {
    const Sentrel::MutexLock lock(m_mutex);
    if (m_ended || m_collection != nullptr || service == nullptr) {
        return false;
    }
    m_collection = std::move(service);
    m_changed.notifyOne();
    return true;
}

bool AgentWorker::take(std::unique_ptr<IAgentPolicyEnforcement>& service) {
    const Sentrel::MutexLock lock(m_mutex);
    if (m_ended || m_enforcement != nullptr || service == nullptr) {
        return false;
    }
    m_enforcement = std::move(service);
    m_savedIsDue = true;
    m_changed.notifyOne();
    return true;
}

void AgentWorker::connected() {
    const Sentrel::MutexLock lock(m_mutex);
    m_heldUntil = Clock::now() + kRetainedPatience;
    m_waiting.beginRound();
    m_statementIsDue = true;
    m_collect = true;
    m_changed.notifyOne();
}

void AgentWorker::policiesAreThere() {
    const Sentrel::MutexLock lock(m_mutex);
    m_heldUntil = {};
    m_changed.notifyOne();
}

void AgentWorker::policyArrived(const PolicyTopic& topic, WaitingPolicies::Message message) {
    const Sentrel::MutexLock lock(m_mutex);
    if (!m_ended) {
        m_waiting.arrived(topic, std::move(message));
        m_changed.notifyOne();
    }
}

std::vector<PolicyTopic> AgentWorker::takeWanted() {
    const Sentrel::MutexLock lock(m_mutex);
    return m_waiting.takeWanted();
}

void AgentWorker::collect(bool full) {
    const Sentrel::MutexLock lock(m_mutex);
    m_collect = m_collect.value_or(false) || full;
    m_changed.notifyOne();
}

void AgentWorker::end() {
    m_breakOff->begin();
    std::thread thread;
    {
        const Sentrel::MutexLock lock(m_mutex);
        m_ended = true;
        thread.swap(m_thread);
        m_changed.notifyAll();
    }
    if (thread.joinable()) {
        thread.join();
    }
    // Outside of the lock: a service's destructor is the module's code.
    std::unique_ptr<IAgentPropertyCollection> collection;
    std::unique_ptr<IAgentPolicyEnforcement> enforcement;
    {
        const Sentrel::MutexLock lock(m_mutex);
        collection.swap(m_collection);
        enforcement.swap(m_enforcement);
    }
}

/// The time for a collection has come.
void AgentWorker::noteInterval() {
    m_nextInterval = Clock::now() + m_settings.interval;
    if (m_outbox->isConnected()) { // otherwise the next connection collects
        m_collect = true;
    }
}

std::optional<AgentWorker::Task> AgentWorker::nextPolicyTask() {
    if (std::exchange(m_savedIsDue, false)) {
        return SavedPolicy{};
    }
    const auto now = Clock::now();
    if (m_waiting.isDue() && now >= m_heldUntil) {
        return m_waiting.takeAll();
    }
    if (m_nextAttempt && now >= *m_nextAttempt) {
        m_nextAttempt.reset();
        return Attempt{};
    }
    if (std::exchange(m_statementIsDue, false)) {
        return Statement{};
    }
    return std::nullopt;
}

/// What is to be done now, which is taken off the list.
std::optional<AgentWorker::Task> AgentWorker::nextTask() {
    if (Sentrel::isTakenOver()) {
        return std::nullopt; // the policy is the other process's to enforce
    }
    if (m_enforcement != nullptr) {
        if (std::optional<Task> task = nextPolicyTask()) {
            return task;
        }
    }
    if (m_collection == nullptr || !m_collect) {
        return std::nullopt;
    }
    return Collection{*std::exchange(m_collect, std::nullopt)};
}

/// When something may be to be done although nobody says so.
AgentWorker::Clock::time_point AgentWorker::nextTime() const {
    Clock::time_point next = m_nextInterval;
    if (m_nextAttempt && !Sentrel::isTakenOver()) {
        next = std::min(next, *m_nextAttempt);
    }
    if (m_heldUntil > Clock::now()) {
        next = std::min(next, m_heldUntil);
    }
    return next;
}

/// Waits for the next thing to do. @return nothing when the worker ends.
std::optional<AgentWorker::Task> AgentWorker::awaitTask() {
    const Sentrel::MutexLock lock(m_mutex);
    while (!m_ended) {
        if (Clock::now() >= m_nextInterval) {
            noteInterval();
        }
        if (std::optional<Task> task = nextTask()) {
            return task;
        }
        (void)m_changed.waitUntil(m_mutex, nextTime());
    }
    return std::nullopt;
}

void AgentWorker::work() {
    t_isWorker = true;
    while (std::optional<Task> task = awaitTask()) {
        callModule(*m_log, "the work on a policy or on properties", [&] {
            std::visit([this](auto& each) { run(each); }, *task);
            return true;
        });
    }
}

IAgentPolicyEnforcement& AgentWorker::enforcement() {
    const Sentrel::MutexLock lock(m_mutex);
    return *m_enforcement;
}

IAgentPropertyCollection& AgentWorker::collection() {
    const Sentrel::MutexLock lock(m_mutex);
    return *m_collection;
}

/// Does work that may change what is said of the policies, and takes up what it leaves to be done, also when it throws.
template <class Work>
void AgentWorker::workOnPolicies(const Work& work) {
    PolicyWork::Done done = PolicyWork::Done::Nothing;
    try {
        done = work();
    } catch (...) {
        plan();
        throw;
    }
    plan();
    if (done == PolicyWork::Done::Enforced) {
        collect(true);
    }
    if (done != PolicyWork::Done::Nothing) {
        publishStatement();
    }
}

void AgentWorker::run(SavedPolicy) {
    workOnPolicies([this] { return m_policies.enforceSaved(enforcement()); });
}

void AgentWorker::run(WaitingPolicies::Arrivals& arrivals) {
    std::vector<PolicyTopic> topics;
    for (const auto& [topic, message] : arrivals.messages) {
        topics.push_back(topic);
    }
    try {
        workOnPolicies([&] { return m_policies.look(std::move(arrivals), enforcement()); });
    } catch (...) { // for want of memory: the broker has them still
        const Sentrel::MutexLock lock(m_mutex);
        for (const PolicyTopic& topic : topics) {
            m_waiting.want(topic);
        }
        throw;
    }
}

void AgentWorker::run(Attempt) {
    workOnPolicies([this] { return m_policies.attemptAgain(enforcement()); });
}

void AgentWorker::run(Statement) {
    publishStatement();
}

void AgentWorker::plan() {
    const std::vector<PolicyTopic> wanted = m_policies.takeWanted();
    const Sentrel::MutexLock lock(m_mutex);
    m_nextAttempt = m_policies.nextAttempt();
    for (const PolicyTopic& topic : wanted) {
        m_waiting.want(topic);
    }
}

/// Also at the end: that a policy is in force and not known to be enforced is worth saying.
void AgentWorker::publishStatement() {
    {
        const Sentrel::MutexLock lock(m_mutex);
        m_statementIsDue = false;
    }
    if (!Sentrel::isTakenOver()) {
        m_outbox->post({m_settings.topics.result(), m_policies.statement()});
    }
}

void AgentWorker::run(Collection wanted) {
    SectionsHandle properties;
    const bool collected = callModule(*m_log, "the collection of properties",
                                      [&] { return collection().collectProperties(wanted.full, properties); });
    if (!collected) {
        m_log->warning("the module gave no properties");
        return;
    }
    std::string document = propertyDocument(properties, wanted.full, timeText());
    if (document.size() > kMaxPropertyBytes) {
        m_log->error("the properties are larger than " + std::to_string(kMaxPropertyBytes) + " bytes; not sent");
        return;
    }
    m_outbox->post({m_settings.topics.properties(), std::move(document)});
}

} // namespace HVBEnterprise::agent
