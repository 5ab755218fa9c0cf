// The one thread on which the library calls into the module.
#pragma once

#include "base/Mutex.h"
#include "platform/hvbagent/AgentDocuments.h"
#include "platform/hvbagent/AgentLog.h"
#include "platform/hvbagent/BreakOff.h"
#include "platform/hvbagent/Outbox.h"
#include "platform/hvbagent/PolicyWork.h"
#include "platform/hvbagent/Topics.h"
#include "platform/hvbagent/WaitingPolicies.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <variant>
#include <vector>

namespace HVBEnterprise::agent {

/// What the callback thread works with.
struct WorkerSettings {
    std::wstring softwareId;
    Topics topics;
    std::chrono::seconds interval;
};

/// Enforces policies and collects properties, one call at a time: first the saved policy, then the newest of those that
/// came, then a collection. Work that comes before its service is registered waits for it.
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

    /// The broker took the machine in. What it retains comes one by one: nothing is chosen before all of it is there,
    /// which policiesAreThere says, or kRetainedPatience has passed. The statement and all properties are wanted.
    void connected();
    void policiesAreThere();

    /// A topic's policy message came, or was taken away.
    void policyArrived(const PolicyTopic& topic, WaitingPolicies::Message message);
    /// The topics whose policies have to be asked for once more.
    std::vector<PolicyTopic> takeWanted();

    /// Properties are wanted. Requests that wait become one, which is full when one of them is.
    void collect(bool full);

    /// Breaks the running call off at its next look-up of a policy, waits for it, ends the thread and destroys the
    /// services. Work that still waits is dropped. Requires that no service is the caller.
    void end();

    /// Whether the calling thread is one on which a client calls services.
    static bool isWorker();

private:
    using Clock = std::chrono::steady_clock;

    struct SavedPolicy {};
    struct Attempt {};
    struct Statement {};
    struct Collection {
        bool full;
    };
    using Task = std::variant<SavedPolicy, WaitingPolicies::Arrivals, Attempt, Statement, Collection>;

    void work();
    std::optional<Task> awaitTask();
    std::optional<Task> nextTask() SENTREL_REQUIRES(m_mutex);
    std::optional<Task> nextPolicyTask() SENTREL_REQUIRES(m_mutex);
    Clock::time_point nextTime() const SENTREL_REQUIRES(m_mutex);
    void noteInterval() SENTREL_REQUIRES(m_mutex);
    IAgentPolicyEnforcement& enforcement();
    IAgentPropertyCollection& collection();

    void run(SavedPolicy);
    void run(WaitingPolicies::Arrivals& arrivals);
    void run(Attempt);
    void run(Statement);
    void run(Collection wanted);
    template <class Work>
    void workOnPolicies(const Work& work);
    void plan();
    void publishStatement();

    // constant after construction
    const WorkerSettings m_settings;
    const std::shared_ptr<BreakOff> m_breakOff = std::make_shared<BreakOff>(); // own locking
    const std::shared_ptr<Outbox> m_outbox;                                    // own locking
    const std::shared_ptr<AgentLog> m_log;                                     // own locking

    // the callback thread's alone
    PolicyWork m_policies;

    Sentrel::Mutex m_mutex;
    Sentrel::ConditionVariable m_changed;

    WaitingPolicies m_waiting SENTREL_GUARDED_BY(m_mutex);
    Clock::time_point m_heldUntil SENTREL_GUARDED_BY(m_mutex);
    std::optional<Clock::time_point> m_nextAttempt SENTREL_GUARDED_BY(m_mutex);
    /// Whether a collection is wanted, and whether a full one.
    std::optional<bool> m_collect SENTREL_GUARDED_BY(m_mutex);
    Clock::time_point m_nextInterval SENTREL_GUARDED_BY(m_mutex);
    bool m_savedIsDue SENTREL_GUARDED_BY(m_mutex) = false;
    bool m_statementIsDue SENTREL_GUARDED_BY(m_mutex) = false;
    bool m_ended SENTREL_GUARDED_BY(m_mutex) = false;
    std::thread m_thread SENTREL_GUARDED_BY(m_mutex);
    // The services themselves are the callback thread's from when they are set until it has ended.
    std::unique_ptr<IAgentPropertyCollection> m_collection SENTREL_GUARDED_BY(m_mutex);
    std::unique_ptr<IAgentPolicyEnforcement> m_enforcement SENTREL_GUARDED_BY(m_mutex);
};

} // namespace HVBEnterprise::agent
