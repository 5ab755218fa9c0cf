// The callback thread: all calls into the module, one at a time.
//
// The network thread only leaves work here. The saved policy comes first, then those that arrived in their order, then
// one collection of properties, for all that asked meanwhile. Work that comes before its service is registered waits
// for it. When policies come faster than they are enforced, the oldest are dropped with a log line: only the newest
// counts.
//
// The lock is held to take work and to give it, never during a call, and not while a service is destroyed either:
// both are the module's code and may call back. An exception of the module ends its call, and not the thread.
#include "platform/hvbagent/AgentWorker.h"

#include "base/StartThread.h"
#include "base/Takeover.h"
#include "platform/hvbagent/AgentLimits.h"
#include "platform/hvbagent/Encoding.h"
#include "platform/hvbagent/StoredRows.h"
#include "platform/stlogger/STLogger.h"

#include <syslog.h>

#include <exception>
#include <utility>

namespace HVBEnterprise::agent {
namespace {

thread_local bool t_isWorker = false;

using Clock = std::chrono::steady_clock;

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
    : m_settings(std::move(settings)), m_outbox(std::move(outbox)), m_log(std::move(log)), m_policy(std::move(policy)),
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

void AgentWorker::policyArrived(std::string message) {
    std::size_t dropped = 0;
    {
        const Sentrel::MutexLock lock(m_mutex);
        if (m_ended) {
            return;
        }
        m_policyBytes += message.size();
        m_policies.push_back(std::move(message));
        while (m_policies.size() > 1 &&
               (m_policies.size() > kMaxWaitingPolicies || m_policyBytes > kMaxWaitingPolicyBytes)) {
            m_policyBytes -= m_policies.front().size();
            m_policies.pop_front();
            ++dropped;
        }
        m_changed.notifyOne();
    }
    if (dropped > 0) {
        m_log->warning("policies come faster than they are enforced; dropped " + std::to_string(dropped));
    }
}

void AgentWorker::policyTooLarge(const std::string& sha256, std::size_t bytes) {
    std::string why =
        "the document: is larger than " + std::to_string(kMaxPolicyBytes) + " bytes, with " + std::to_string(bytes);
    publishResult({.version = {}, .id = {}, .sha256 = sha256}, {{}, std::move(why), {}});
}

void AgentWorker::collect(bool full) {
    const Sentrel::MutexLock lock(m_mutex);
    m_collect = m_collect.value_or(false) || full;
    m_changed.notifyOne();
}

void AgentWorker::end() {
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

bool AgentWorker::hasWork() const {
    if (Sentrel::isTakenOver()) {
        return false; // the policy is the other process's to enforce
    }
    return (m_enforcement != nullptr && (m_savedIsDue || !m_policies.empty())) ||
           (m_collection != nullptr && m_collect.has_value());
}

/// The time for a collection has come.
void AgentWorker::noteInterval() {
    m_nextInterval = Clock::now() + m_settings.interval;
    if (m_outbox->isConnected()) { // otherwise the next connection collects
        m_collect = true;
    }
}

AgentWorker::Task AgentWorker::takeTask() {
    if (m_enforcement != nullptr && m_savedIsDue) {
        m_savedIsDue = false;
        return SavedPolicy{};
    }
    if (m_enforcement != nullptr && !m_policies.empty()) {
        NewPolicy policy{std::move(m_policies.front())};
        m_policies.pop_front();
        m_policyBytes -= policy.message.size();
        return policy;
    }
    const Collection wanted{m_collect.value_or(false)};
    m_collect.reset();
    return wanted;
}

/// The next thing to do, which is taken off the list. @return nothing when the worker ends.
std::optional<AgentWorker::Task> AgentWorker::awaitTask() {
    const Sentrel::MutexLock lock(m_mutex);
    while (!m_ended && !hasWork()) {
        if (!m_changed.waitUntil(m_mutex, m_nextInterval) && Clock::now() >= m_nextInterval) {
            noteInterval();
        }
    }
    return m_ended ? std::nullopt : std::optional(takeTask());
}

void AgentWorker::work() {
    t_isWorker = true;
    while (const std::optional<Task> task = awaitTask()) {
        callModule(*m_log, "the work on a policy or on properties", [&] {
            std::visit([this](const auto& each) { run(each); }, *task);
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

void AgentWorker::enforceSaved() {
    bool isThere = false;
    try {
        isThere = m_policy.restore();
    } catch (const std::exception& error) {
        m_log->error(std::string("the saved policy cannot be used, none is in force: ") + error.what());
    }
    if (isThere) {
        m_log->information("enforcing the saved policy, version " + std::to_string(*m_policy.identity().version));
        enforce();
    }
}

PolicyOutcome AgentWorker::enforce() {
    const bool enforced = callModule(*m_log, "the enforcement of a policy", [this] {
        return enforcement().enforcePolicy(m_settings.softwareId, m_policy.sections());
    });
    m_policy.noteEnforced(enforced);
    collect(true);
    return {enforced, "", enforced ? compare() : std::nullopt};
}

/// A pass reports success also when the settings file took only a part of a list.
std::optional<std::size_t> AgentWorker::compare() {
    const StoredRows rows = compareWithFile(m_policy.sections());
    if (rows.missing.value_or(0) > 0) {
        // Of a policy that arrived again the rows may be missing since somebody else changed a list.
        m_log->warning(std::to_string(*rows.missing) +
                       " rows of the policy's lists are not in the settings file: what of " +
                       "them is in force is so until the next start");
    } else if (!rows.missing) {
        m_log->information("whether the policy's lists are stored cannot be seen: " + rows.trouble);
    }
    return rows.missing;
}

void AgentWorker::handlePolicy(const std::string& message) {
    const PolicyDecision decision = m_policy.take(message);
    switch (decision.verdict) {
    case PolicyVerdict::Refused:
        publishResult(decision.identity, {{}, decision.refused, {}});
        return;
    case PolicyVerdict::AlreadyThere:
        publishResult(decision.identity, {true, "", compare()});
        return;
    case PolicyVerdict::Enforce:
        publishResult(decision.identity, enforce());
        return;
    }
}

void AgentWorker::publishResult(const PolicyIdentity& identity, const PolicyOutcome& outcome) {
    const std::string name = "policy " + (identity.version ? "version " + std::to_string(*identity.version) : "") +
                             " (SHA-256 " + identity.sha256 + ")";
    if (!outcome.enforced) {
        m_log->warning(name + " is refused: " + outcome.refused);
    } else if (*outcome.enforced) {
        m_log->information(name + " is enforced");
    } else {
        m_log->warning(name + " is in force, but its enforcement failed");
    }
    m_outbox->post({m_settings.topics.result(), policyResult(identity, outcome, timeText())});
}

void AgentWorker::collectNow(bool full) {
    SectionsHandle properties;
    const bool collected = callModule(*m_log, "the collection of properties",
                                      [&] { return collection().collectProperties(full, properties); });
    if (!collected) {
        m_log->warning("the module gave no properties");
        return;
    }
    std::string document = propertyDocument(properties, full, timeText());
    if (document.size() > kMaxPropertyBytes) {
        m_log->error("the properties are larger than " + std::to_string(kMaxPropertyBytes) + " bytes; not sent");
        return;
    }
    m_outbox->post({m_settings.topics.properties(), std::move(document)});
}

} // namespace HVBEnterprise::agent
