// The choice of a policy.
//
// A machine has its own topic, one for each of its groups and the site's. What counts is the set of the last messages
// of these, never the order in which they arrive: so the choice is made over all that came, by age and then by topic,
// and against the record of the highest that was ever taken. Only the one that is chosen is saved and enforced.
//
// There are two files. The policy itself is saved first, then the record. A machine that loses power in between finds a
// policy that is newer than its record, and takes it: that order can only happen so. The other way round, a policy that
// is older than the record, is somebody's old copy, and is not taken.
//
// What must stay so:
// - The same policy again is that in force, whoever it says it is for: it was judged when it was taken.
// - A policy of the same topic that is older, or that has another content under the same version, is refused: somebody
//   made a mistake there. One of another topic is passed over: that is how topics work together.
// - A policy that cannot be saved is not enforced, and can be taken later.
#include "platform/hvbagent/PolicyInForce.h"

#include "platform/hvbagent/AgentLimits.h"
#include "platform/hvbagent/Encoding.h"

#include <algorithm>
#include <exception>
#include <system_error>
#include <utility>

namespace HVBEnterprise::agent {
namespace {

/// Whether one policy takes the other's place.
bool isBefore(const PolicyIdentity& one, const PolicyTopic& oneTopic, const PolicyAge& other,
              const PolicyTopic& otherTopic) {
    const PolicyAge age = ageOf(one);
    return age > other || (age == other && oneTopic.isNearerThan(otherTopic));
}

std::string inForceWords(const PolicyAge& age, const PolicyTopic& topic) {
    return ageText(age) + " of " + topic.text();
}

} // namespace

/// A policy that may be the newest.
struct PolicyInForce::Candidate {
    PolicyTopic topic;
    std::string message;
    PolicyReading reading;
    std::size_t place; ///< among those that were judged
};

PolicyTaker takerOf(const AgentConfiguration& configuration) {
    return {.site = configuration.site,
            .machine = configuration.machine,
            .groups = configuration.groups,
            .keys = configuration.policyKeys,
            .requiresAudience = configuration.requiresAudience};
}

PolicyInForce::PolicyInForce(PolicyFiles files, PolicyTaker taker)
    : m_store(std::move(files.policy)), m_recordPath(std::move(files.record)), m_taker(std::move(taker)) {}

/// Reads the record. @return whether the files are this machine's, as far as can be known.
bool PolicyInForce::takeRecord(std::string& trouble) {
    m_record.reset();
    try {
        m_record = loadPolicyRecord(m_recordPath);
    } catch (const std::exception& error) {
        trouble = m_recordPath + ": " + error.what();
    }
    if (!m_record || (m_record->site == m_taker.site && m_record->machine == m_taker.machine)) {
        return true;
    }
    trouble = "the saved policy was taken as machine " + shortPrintable(m_record->machine) + " of site " +
              shortPrintable(m_record->site) + ", which this machine is not";
    m_record.reset();
    return false;
}

/// Why a policy that was found in the file is not in force.
std::string PolicyInForce::whyNotSaved(const PolicyReading& reading) const {
    if (!reading.refused.empty()) {
        return reading.refused;
    }
    if (m_record && ageOf(reading.identity) < ageOf(*m_record)) {
        return "it is older than " + ageText(ageOf(*m_record)) + ", which this machine has had";
    }
    return whyNotForUs(reading.identity, std::nullopt);
}

std::string PolicyInForce::restore() {
    std::string trouble;
    m_isThere = false;
    if (!takeRecord(trouble)) {
        return trouble;
    }
    try {
        const std::optional<std::string> message = m_store.load();
        if (!message) {
            return trouble;
        }
        PolicyReading reading = readPolicyMessage(*message, m_taker.keys);
        if (const std::string why = whyNotSaved(reading); !why.empty()) {
            return m_store.path() + ": " + why;
        }
        m_reading = std::move(reading);
        m_isThere = true;
        if (!m_record || m_record->sha256 != m_reading.identity.sha256) {
            m_record = recordOf(PolicyTopic{}, m_reading.identity); // which topic it came to nobody knows any more
            savePolicyRecord(m_recordPath, *m_record);
        }
    } catch (const std::exception& error) {
        return error.what();
    }
    return trouble;
}

/// @param topic that it came to; nothing when that is not known.
std::string PolicyInForce::whyNotForUs(const PolicyIdentity& identity, const std::optional<PolicyTopic>& topic) const {
    const std::optional<Audience>& audience = identity.audience;
    if (!audience) {
        if (m_taker.requiresAudience) {
            return "it does not say whom it is for, and this machine takes only policies that do";
        }
        return topic && !topic->isOwn() ? "it does not say whom it is for, and came to a topic of many machines" : "";
    }
    if (audience->site != m_taker.site) {
        return "it is for site " + audience->site;
    }
    if (!audience->machine.empty()) {
        return audience->machine == m_taker.machine ? "" : "it is for machine " + audience->machine;
    }
    const bool isMember = audience->group == kEveryMachine || std::find(m_taker.groups.begin(), m_taker.groups.end(),
                                                                        audience->group) != m_taker.groups.end();
    return isMember ? "" : "it is for group " + audience->group + ", which this machine is not in";
}

bool PolicyInForce::isNewerThanRecord(const PolicyTopic& topic, const PolicyIdentity& identity) const {
    if (!m_record || isBefore(identity, topic, ageOf(*m_record), m_record->topic)) {
        return true;
    }
    // What was lost is taken again.
    return !m_isThere && ageOf(identity) == ageOf(*m_record) && identity.sha256 == m_record->sha256;
}

/// Judges one policy by itself. One that may be the newest counts as passed over for now.
JudgedPolicy PolicyInForce::judged(const PolicyTopic& topic, const PolicyReading& reading) const {
    JudgedPolicy policy{.topic = topic, .identity = reading.identity, .why = reading.refused};
    if (!policy.why.empty()) {
        return policy;
    }
    if (m_isThere && reading.identity.sha256 == m_reading.identity.sha256) {
        policy.fate = PolicyFate::InForce;
        return policy;
    }
    policy.why = whyNotForUs(reading.identity, topic);
    if (!policy.why.empty()) {
        return policy;
    }
    policy.fate = PolicyFate::PassedOver;
    if (isNewerThanRecord(topic, reading.identity)) {
        return policy;
    }
    const PolicyAge highest = ageOf(*m_record);
    const bool isOlder = ageOf(reading.identity) < highest;
    if (topic != m_record->topic) {
        policy.why = (isOlder ? "it is older than " : "it is not as near as ") + inForceWords(highest, m_record->topic);
        return policy;
    }
    policy.fate = PolicyFate::Refused;
    policy.why = isOlder ? "it is older than the policy in force, which has " + ageText(highest)
                         : "a policy with other content is in force as " + ageText(highest);
    return policy;
}

PolicyRecord PolicyInForce::recordOf(const PolicyTopic& topic, const PolicyIdentity& identity) const {
    return {.site = m_taker.site,
            .machine = m_taker.machine,
            .epoch = identity.epoch,
            .version = *identity.version,
            .sha256 = identity.sha256,
            .topic = topic,
            .since = timeText()};
}

/// Saves the newest and puts it into force.
void PolicyInForce::take(Candidate best, PolicyChoice& choice) {
    JudgedPolicy& policy = choice.judged[best.place];
    try {
        m_store.save(best.message);
    } catch (const std::system_error& error) {
        policy.fate = PolicyFate::Refused;
        policy.why = std::string("it cannot be saved: ") + error.what();
        policy.isSaved = false;
        return;
    }
    m_reading = std::move(best.reading);
    m_isThere = choice.isNew = true;
    m_record = recordOf(best.topic, m_reading.identity);
    try {
        savePolicyRecord(m_recordPath, *m_record);
    } catch (const std::system_error& error) {
        choice.trouble = error.what();
    }
}

PolicyChoice PolicyInForce::choose(std::vector<ArrivedPolicy> arrived) {
    PolicyChoice choice;
    std::optional<Candidate> best;
    for (ArrivedPolicy& each : arrived) {
        PolicyReading reading = readPolicyMessage(each.message, m_taker.keys);
        choice.judged.push_back(judged(each.topic, reading));
        const JudgedPolicy& policy = choice.judged.back();
        const bool isCandidate = policy.fate == PolicyFate::PassedOver && policy.why.empty();
        if (isCandidate &&
            (!best || isBefore(reading.identity, each.topic, ageOf(best->reading.identity), best->topic))) {
            best = Candidate{each.topic, std::move(each.message), std::move(reading), choice.judged.size() - 1};
        }
    }
    if (best) {
        take(*std::move(best), choice);
    }
    for (JudgedPolicy& policy : choice.judged) {
        if (policy.fate != PolicyFate::Refused) {
            settle(policy);
        }
    }
    return choice;
}

/// Says of a policy that was not refused whether it is the one.
void PolicyInForce::settle(JudgedPolicy& policy) const {
    if (m_isThere && policy.identity.sha256 == m_reading.identity.sha256) {
        policy.fate = PolicyFate::InForce;
        return;
    }
    policy.fate = PolicyFate::PassedOver;
    if (policy.why.empty()) {
        policy.why = "a newer one came, or a nearer one of the same version";
    }
}

} // namespace HVBEnterprise::agent
