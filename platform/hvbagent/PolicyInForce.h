// Which policy is in force: of all that come to a machine's topics, one, and the same whatever the order they come in.
#pragma once

#include "platform/hvbagent/AgentConfiguration.h"
#include "platform/hvbagent/PolicyRecord.h"
#include "platform/hvbagent/PolicyStore.h"

#include <optional>
#include <string>
#include <vector>

namespace HVBEnterprise::agent {

/// Whom a policy has to be for, and whose it has to be, to be taken. Threads: any. Owner: a value.
struct PolicyTaker {
    std::string site;
    std::string machine;
    std::vector<std::string> groups; ///< without "all", which goes without saying
    PublicKeys keys;                 ///< when there are any, only signed ones are taken
    bool requiresAudience = false;
};

/// A policy message, and the topic that it came to.
struct ArrivedPolicy {
    PolicyTopic topic;
    std::string message;
};

/// Where the two files are.
struct PolicyFiles {
    std::string policy;
    std::string record;
};

/// What this machine's enrolment says of that.
PolicyTaker takerOf(const AgentConfiguration& configuration);

/// What became of a policy that came.
enum class PolicyFate {
    InForce,
    PassedOver, ///< it could be taken, but another topic's is newer, or nearer
    Refused,
};

struct JudgedPolicy {
    PolicyTopic topic;
    PolicyIdentity identity;
    PolicyFate fate = PolicyFate::Refused;
    std::string why;    ///< empty when it is in force
    bool isFit = false; ///< whether it can be read and is for this machine
    bool isSaved =
        true; ///< false: it was chosen and could not be saved, or lost against such a one; it may be taken later
};

/// What a look at the policies that came led to.
struct PolicyChoice {
    std::vector<JudgedPolicy> judged; ///< of each that came, in their order
    bool isNew = false;               ///< another policy is in force now, and saved
    std::string trouble;              ///< what could not be recorded; the policy is in force all the same
};

/// The rules by which one policy takes another's place, and the files in which the one in force stays.
///
/// The policy with the higher epoch is newer, within an epoch the one with the higher version. Of two with one version
/// that of the nearer topic is taken (PolicyTopic::isNearerThan). What was taken is never gone back behind, also when
/// its topic is cleared; the record says so when the saved policy is spoilt. Both files are bound to the machine and
/// its site: a machine that was moved begins anew. Threads: plain, single access. Owner: the callback thread.
class PolicyInForce {
public:
    PolicyInForce(PolicyFiles files, PolicyTaker taker);

    /// Takes the saved policy; isThere tells whether there was one. What is there and cannot be taken stays until
    /// another policy replaces it. @return why something that was saved is not in force, or not known of it; empty when
    /// all is well.
    std::string restore();

    /// Judges the policies that came and puts the newest into store and force, if it is newer than that in force.
    PolicyChoice choose(std::vector<ArrivedPolicy> arrived);

    bool isThere() const { return m_isThere; }
    // Each requires that a policy is there.
    const SectionsHandle& sections() const { return m_reading.sections; }
    SectionsHandle& sections() { return m_reading.sections; }
    const PolicyIdentity& identity() const { return m_reading.identity; }
    const std::optional<PolicyTopic>& topic() const { return m_record->topic; } ///< nothing when that is not known
    const std::string& since() const { return m_record->since; }

private:
    struct Candidate;

    bool takeRecord(std::string& trouble);
    std::string whyNotSaved(const PolicyReading& reading) const;
    std::string whyNotForUs(const PolicyIdentity& identity, const std::optional<PolicyTopic>& topic) const;
    bool isInForce(const PolicyIdentity& identity) const;
    bool isNewerThanRecord(const PolicyTopic& topic, const PolicyIdentity& identity) const;
    std::optional<Candidate> best(std::vector<ArrivedPolicy> arrived, PolicyChoice& choice) const;
    void take(Candidate best, PolicyChoice& choice);
    void place(JudgedPolicy& policy) const;
    std::string learnTopic(const PolicyChoice& choice);
    PolicyRecord recordOf(const std::optional<PolicyTopic>& topic, const PolicyIdentity& identity) const;

    const PolicyStore m_store;
    const std::string m_recordPath;
    const PolicyTaker m_taker;
    bool m_isThere = false;
    PolicyReading m_reading;              ///< of the policy in force
    std::optional<PolicyRecord> m_record; ///< of the highest that was taken
};

} // namespace HVBEnterprise::agent
