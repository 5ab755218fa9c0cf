// What the callback thread does about policies.
#pragma once

#include "platform/hvbagent/AgentDocuments.h"
#include "platform/hvbagent/AgentLog.h"
#include "platform/hvbagent/BreakOff.h"
#include "platform/hvbagent/PolicyInForce.h"
#include "platform/hvbagent/PolicyStatement.h"
#include "platform/hvbagent/WaitingPolicies.h"

#include <chrono>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace HVBEnterprise::agent {

/// Chooses, enforces, tries again and says what came of it.
/// Threads: plain, single access. Owner: the worker, whose thread is the only one here.
class PolicyWork {
public:
    using Clock = std::chrono::steady_clock;

    PolicyWork(std::wstring softwareId, PolicyInForce policy, std::shared_ptr<const BreakOff> breakOff,
               std::shared_ptr<AgentLog> log);

    /// Enforces the saved policy, if there is one that can be used. @return whether the service was called
    bool enforceSaved(IAgentPolicyEnforcement& service);
    /// Looks at the policies that came, and enforces the one that is in force now if it is another one. @return
    /// likewise
    bool look(WaitingPolicies::Messages arrived, IAgentPolicyEnforcement& service);
    /// When it is time to look after the policy in force again: an attempt failed, rows are missing, or nobody could
    /// tell. Nothing when all is well.
    std::optional<Clock::time_point> nextAttempt() const;
    /// Does that when the pause is over, or at once when the hub is back: enforces the policy again, or looks whether
    /// it is stored. @return false when it only looked for the hub
    bool attemptAgain(IAgentPolicyEnforcement& service);

    /// Topics whose policies are needed once more: they could not be saved, and may be at the next attempt.
    std::vector<PolicyTopic> takeWanted();

    /// The document that says all of this.
    std::string statement() const;

private:
    enum class Outcome { Enforced, NotEnforced, Failed, BrokenOff };

    void enforce(IAgentPolicyEnforcement& service);
    Outcome callService(IAgentPolicyEnforcement& service, std::string& why) const;
    bool compare();
    void note(Outcome outcome, const std::string& why);
    void tryLater();
    void allIsWell();
    void tell(const JudgedPolicy& judged) const;
    std::vector<ArrivedPolicy> keptOf(WaitingPolicies::Messages arrived);
    void stand();

    // constant after construction
    const std::wstring m_softwareId;
    const std::shared_ptr<const BreakOff> m_breakOff;
    const std::shared_ptr<AgentLog> m_log; // own locking

    PolicyInForce m_policy;
    PolicyStatement m_statement;
    std::vector<PolicyTopic> m_wanted;

    std::optional<Clock::time_point> m_again; ///< when the next attempt is
    bool m_isDue = false;                     ///< whether it is to enforce the policy in force
    Clock::time_point m_hubLook;              ///< while the hub is away
    bool m_isHubAway = false;
    std::chrono::milliseconds m_pause;
    std::minstd_rand m_random;
};

} // namespace HVBEnterprise::agent
