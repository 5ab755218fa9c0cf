// What a machine says of its policies.
#pragma once

#include "platform/hvbagent/PolicyInForce.h"
#include "policy/LeftOut.h"

#include <cstddef>
#include <map>
#include <optional>
#include <string>

namespace HVBEnterprise::agent {

/// The policy in force, and how far it is.
struct StandingPolicy {
    PolicyIdentity identity;
    std::optional<PolicyTopic> topic;       ///< nothing when that is not known any more
    std::string since;                      ///< when it was taken
    std::optional<bool> enforced;           ///< what the last attempt gave; nothing before the first has ended
    std::optional<std::size_t> rowsMissing; ///< of its lists in the settings file; nothing when that is not known
    Sentrel::policy::LeftOut leftOut;       ///< what of its lists nobody can put into force
};

/// An attempt to put a policy into force that failed.
struct FailedAttempt {
    PolicyIdentity identity;
    std::string why;
    std::string time;
};

/// A policy that came to one of the topics and is not in force.
struct DeclinedPolicy {
    JudgedPolicy judged;
    std::string time;   ///< when it was judged so first
    std::size_t number; ///< counts the judgements: the last one has the highest
};

/// All that a machine says of its policies. Threads: plain, single access. Owner: the callback thread.
struct PolicyStatement {
    std::optional<StandingPolicy> standing;
    std::optional<FailedAttempt> failed; ///< the last one of the policy in force; nothing once that is in force
    std::map<PolicyTopic, DeclinedPolicy> declined;
    std::size_t judgements = 0;

    /// Takes what became of a policy in place of what was said of its topic.
    void take(const JudgedPolicy& judged, const std::string& time);
    /// Another policy takes the place of the one that stands. That one is passed over from now on, if it came to
    /// another topic, of which nothing else is said.
    void replaceStanding(StandingPolicy next, const std::string& time);
};

/// The document. in_force, failed and refused are null for what there is none of; refused is the last that was refused.
/// whole is whether every entry that can be put into force is, and null where that cannot be told.
std::string statementDocument(const PolicyStatement& statement, const std::string& time);

} // namespace HVBEnterprise::agent
