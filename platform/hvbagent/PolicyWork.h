// What the callback thread does about policies.
#pragma once

#include "platform/hvbagent/AgentDocuments.h"
#include "platform/hvbagent/AgentLog.h"
#include "platform/hvbagent/Backoff.h"
#include "platform/hvbagent/BreakOff.h"
#include "platform/hvbagent/PolicyInForce.h"
#include "platform/hvbagent/PolicyStatement.h"
#include "platform/hvbagent/WaitingPolicies.h"

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace HVBEnterprise::agent {

/// Chooses, enforces, tries again and says what came of it.
/// Threads: plain, single access. Owner: the worker, whose thread is the only one here.
class PolicyWork {
public:
    using Clock = Backoff::Clock;

    PolicyWork(std::wstring softwareId, PolicyInForce policy, std::shared_ptr<const BreakOff> breakOff,
               std::shared_ptr<AgentLog> log);

    /// What an operation did that others hear of.
    enum class Done {
        Nothing,
        News,     ///< the statement is another one
        Enforced, ///< the service was called: the machine's properties may be others, too
    };

    /// Enforces the saved policy, if there is one that can be used.
    Done enforceSaved(IAgentPolicyEnforcement& service);
    /// Looks at the policies that came, and enforces the one that is in force now if it is another one.
    Done look(WaitingPolicies::Arrivals arrivals, IAgentPolicyEnforcement& service);
    /// When it is time to look after things again: an attempt failed, rows are missing, nobody could tell, or a policy
    /// could not be saved. Nothing when all is well.
    std::optional<Clock::time_point> nextAttempt() const;
    /// Does what is due then.
    Done attemptAgain(IAgentPolicyEnforcement& service);

    /// Topics whose policies are needed once more.
    std::vector<PolicyTopic> takeWanted() { return std::exchange(m_wanted, {}); }

    /// The document that says all of this.
    std::string statement() const;

private:
    enum class Outcome { Enforced, NotEnforced, Failed, BrokenOff };
    enum class Rows { Stored, Missing, Unknown };
    enum class Due { Nothing, Enforcement, Comparison };

    void enforce(IAgentPolicyEnforcement& service);
    Outcome callService(IAgentPolicyEnforcement& service, std::string& why) const;
    void note(Outcome outcome, const std::string& why);
    Rows compare();
    void settle(Rows rows);
    void tryLater(Due due);
    void allIsWell();
    void judge(const JudgedPolicy& judged);
    std::vector<ArrivedPolicy> readable(WaitingPolicies::Messages messages);
    void forgetOthers(const std::set<PolicyTopic>& topics);
    bool stand();

    // constant after construction
    const std::wstring m_softwareId;
    const std::shared_ptr<const BreakOff> m_breakOff;
    const std::shared_ptr<AgentLog> m_log; // own locking

    PolicyInForce m_policy;
    PolicyStatement m_statement;

    Backoff m_attempts; ///< on the policy in force
    Due m_due = Due::Nothing;
    bool m_isHubAway = false;
    Clock::time_point m_hubLook; ///< while the hub is away

    Backoff m_saves;                   ///< of policies that could not be saved
    std::set<PolicyTopic> m_unsaved;   ///< their topics
    std::vector<PolicyTopic> m_wanted; ///< those of which it is time
};

} // namespace HVBEnterprise::agent
