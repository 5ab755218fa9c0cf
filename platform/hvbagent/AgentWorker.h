// The one thread on which the library calls into the module.
#pragma once

#include "base/Mutex.h"
#include "platform/hvbagent/AgentDocuments.h"
#include "platform/hvbagent/AgentLog.h"
#include "platform/hvbagent/Outbox.h"
#include "platform/hvbagent/PolicyStore.h"
#include "platform/hvbagent/PropertyDocument.h"
#include "platform/hvbagent/Topics.h"

#include <chrono>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <variant>

namespace HVBEnterprise::agent {

/// What the callback thread works with.
struct WorkerSettings {
    std::wstring softwareId;
    Topics topics;
    std::chrono::seconds interval;
};

/// Enforces policies and collects properties, one call at a time: first the saved policy, then those that came in the
/// order in which they came, then a collection. Work that comes before its service is registered waits for it.
/// Threads: thread-safe. Owner: the client and its network thread, together; begin and end are the client's.
class AgentWorker {
public:
    AgentWorker(WorkerSettings settings, PolicyInForce policy, std::shared_ptr<Outbox> outbox,
                std::shared_ptr<AgentLog> log);
    AgentWorker(const AgentWorker&) = delete;
    AgentWorker& operator=(const AgentWorker&) = delete;
    ~AgentWorker() { end(); }

    /// Makes the thread. @throws std::system_error.
    void begin();

    /// Takes a service. @return false, with the service left where it is, when there is one already and after end.
    bool take(std::unique_ptr<IAgentPropertyCollection>& service);
    bool take(std::unique_ptr<IAgentPolicyEnforcement>& service);

    /// A policy message came. When it is too large to keep, only its hash and size are handed over.
    void policyArrived(std::string message);
    void policyTooLarge(const std::string& sha256, std::size_t bytes);

    /// Properties are wanted. Requests that wait become one, which is full when one of them is.
    void collect(bool full);

    /// Waits for the running call, ends the thread and destroys the services. Work that still waits is dropped.
    /// Requires that no service is the caller.
    void end();

    /// Whether the calling thread is one on which a client calls services.
    static bool isWorker();

private:
    struct SavedPolicy {};
    struct NewPolicy {
        std::string message;
    };
    struct Collection {
        bool full;
    };
    using Task = std::variant<SavedPolicy, NewPolicy, Collection>;

    void work();
    std::optional<Task> awaitTask();
    bool hasWork() const SENTREL_REQUIRES(m_mutex);
    void noteInterval() SENTREL_REQUIRES(m_mutex);
    Task takeTask() SENTREL_REQUIRES(m_mutex);
    IAgentPolicyEnforcement& enforcement();
    IAgentPropertyCollection& collection();

    void run(const SavedPolicy&) { enforceSaved(); }
    void run(const NewPolicy& policy) { handlePolicy(policy.message); }
    void run(const Collection& wanted) { collectNow(wanted.full); }
    void enforceSaved();
    void handlePolicy(const std::string& message);
    PolicyOutcome enforce();
    std::optional<std::size_t> compare();
    void collectNow(bool full);
    void publishResult(const PolicyIdentity& identity, const PolicyOutcome& outcome);

    // constant after construction
    const WorkerSettings m_settings;
    const std::shared_ptr<Outbox> m_outbox; // own locking
    const std::shared_ptr<AgentLog> m_log;  // own locking

    // the callback thread's alone
    PolicyInForce m_policy;

    Sentrel::Mutex m_mutex;
    Sentrel::ConditionVariable m_changed;

    std::deque<std::string> m_policies SENTREL_GUARDED_BY(m_mutex);
    std::size_t m_policyBytes SENTREL_GUARDED_BY(m_mutex) = 0;
    /// Whether a collection is wanted, and whether a full one.
    std::optional<bool> m_collect SENTREL_GUARDED_BY(m_mutex);
    std::chrono::steady_clock::time_point m_nextInterval SENTREL_GUARDED_BY(m_mutex);
    bool m_savedIsDue SENTREL_GUARDED_BY(m_mutex) = false;
    bool m_ended SENTREL_GUARDED_BY(m_mutex) = false;
    std::thread m_thread SENTREL_GUARDED_BY(m_mutex);
    // The services themselves are the callback thread's from when they are set until it has ended.
    std::unique_ptr<IAgentPropertyCollection> m_collection SENTREL_GUARDED_BY(m_mutex);
    std::unique_ptr<IAgentPolicyEnforcement> m_enforcement SENTREL_GUARDED_BY(m_mutex);
};

} // namespace HVBEnterprise::agent
