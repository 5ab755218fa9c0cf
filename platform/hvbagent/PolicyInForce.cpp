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
// - A document that says whom it is for counts on that topic alone.
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

/// Whether one policy takes the other's place. A topic that is not known is behind every other.
bool isBefore(const PolicyIdentity& one, const PolicyTopic& oneTopic, const PolicyAge& other,
              const std::optional<PolicyTopic>& otherTopic) {
    const PolicyAge age = ageOf(one);
    return age > other || (age == other && (!otherTopic || oneTopic.isNearerThan(*otherTopic)));
}

bool isMemberOf(const PolicyTaker& taker, const std::string& group) {
    return group == kEveryMachine || std::find(taker.groups.begin(), taker.groups.end(), group) != taker.groups.end();
}

std::string wordsFor(const PolicyRecord& record) {
    return ageText(ageOf(record)) + (record.topic ? " of " + record.topic->text() : "");
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
    if (!m_record) {
        return true;
    }
    if (m_record->site == m_taker.site && m_record->machine == m_taker.machine) {
        const std::string group = m_record->topic ? m_record->topic->group : "";
        if (group.empty() || isMemberOf(m_taker, group)) {
            return true;
        }
        trouble = "the saved policy came from group " + group + ", which this machine is not in any more";
        m_record.reset();
        return false;
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
            return m_record ? m_store.path() + " is gone; this machine has had " + ageText(ageOf(*m_record)) : trouble;
        }
        PolicyReading reading = readPolicyMessage(*message, m_taker.keys);
        if (const std::string why = whyNotSaved(reading); !why.empty()) {
            return m_store.path() + ": " + why;
        }
        m_reading = std::move(reading);
        m_isThere = true;
        if (!m_record || m_record->sha256 != m_reading.identity.sha256) {
            m_record = recordOf(std::nullopt, m_reading.identity);
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
    if (!audience->machine.empty() && audience->machine != m_taker.machine) {
        return "it is for machine " + audience->machine;
    }
    if (!audience->group.empty() && !isMemberOf(m_taker, audience->group)) {
        return "it is for group " + audience->group + ", which this machine is not in";
    }
    // How near a topic is counts, and whoever writes to the broker chooses the topic.
    const bool isItsTopic = !topic || topic->group == audience->group;
    return isItsTopic ? "" : "it is for " + PolicyTopic{audience->group}.text() + ", and came to " + topic->text();
}

bool PolicyInForce::isInForce(const PolicyIdentity& identity) const {
    return m_isThere && identity.sha256 == m_reading.identity.sha256;
}

bool PolicyInForce::isNewerThanRecord(const PolicyTopic& topic, const PolicyIdentity& identity) const {
    if (!m_record || isBefore(identity, topic, ageOf(*m_record), m_record->topic)) {
        return true;
    }
    return !m_isThere && ageOf(identity) == ageOf(*m_record); // what was lost is taken again
}

/// Says of a policy that is fit what it is beside the record. Requires a record.
void PolicyInForce::place(JudgedPolicy& policy) const {
    policy.why.clear();
    if (isInForce(policy.identity)) {
        policy.fate = PolicyFate::InForce;
        return;
    }
    policy.fate = PolicyFate::PassedOver;
    if (isNewerThanRecord(policy.topic, policy.identity)) {
        policy.why = "one that could not be saved came with it";
        return;
    }
    const PolicyAge highest = ageOf(*m_record);
    const bool isOlder = ageOf(policy.identity) < highest;
    if (!m_isThere) {
        policy.fate = PolicyFate::Refused;
        policy.why = "it is older than " + ageText(highest) + ", which this machine has had";
    } else if (m_record->topic != policy.topic) {
        policy.why = (isOlder ? "it is older than " : "it is not as near as ") + wordsFor(*m_record);
    } else {
        policy.fate = PolicyFate::Refused;
        policy.why = isOlder ? "it is older than the policy in force, which has " + ageText(highest)
                             : "a policy with other content is in force as " + ageText(highest);
    }
}

PolicyRecord PolicyInForce::recordOf(const std::optional<PolicyTopic>& topic, const PolicyIdentity& identity) const {
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

/// Judges each policy by itself, and finds the newest of those that are newer than the record.
std::optional<PolicyInForce::Candidate> PolicyInForce::best(std::vector<ArrivedPolicy> arrived,
                                                            PolicyChoice& choice) const {
    std::optional<Candidate> best;
    for (ArrivedPolicy& each : arrived) {
        PolicyReading reading = readPolicyMessage(each.message, m_taker.keys);
        JudgedPolicy policy;
        policy.topic = each.topic;
        policy.identity = reading.identity;
        policy.why = reading.refused;
        const bool isKnown = policy.why.empty() && isInForce(reading.identity);
        if (policy.why.empty() && !isKnown) {
            policy.why = whyNotForUs(reading.identity, each.topic);
        }
        policy.isFit = policy.why.empty();
        choice.judged.push_back(policy);
        const bool isCandidate = policy.isFit && !isKnown && isNewerThanRecord(each.topic, reading.identity);
        if (isCandidate &&
            (!best || isBefore(reading.identity, each.topic, ageOf(best->reading.identity), best->topic))) {
            best = Candidate{each.topic, std::move(each.message), std::move(reading), choice.judged.size() - 1};
        }
    }
    return best;
}

/// Where the topic of the policy in force was not known, it may be now. @return what could not be recorded
std::string PolicyInForce::learnTopic(const PolicyChoice& choice) {
    if (!m_isThere || m_record->topic) {
        return {};
    }
    for (const JudgedPolicy& policy : choice.judged) {
        if (isInForce(policy.identity)) {
            m_record->topic = policy.topic;
        }
    }
    if (m_record->topic) {
        try {
            savePolicyRecord(m_recordPath, *m_record);
        } catch (const std::system_error& error) {
            return error.what();
        }
    }
    return {};
}

PolicyChoice PolicyInForce::choose(std::vector<ArrivedPolicy> arrived) {
    PolicyChoice choice;
    if (std::optional<Candidate> newest = best(std::move(arrived), choice)) {
        take(*std::move(newest), choice);
    }
    if (const std::string trouble = learnTopic(choice); !trouble.empty()) {
        choice.trouble = trouble;
    }
    for (JudgedPolicy& policy : choice.judged) {
        if (!policy.isFit || !policy.isSaved) {
            continue;
        }
        if (m_record) {
            place(policy);
        } else {
            policy.fate = PolicyFate::PassedOver;
            policy.why = "one that could not be saved came with it";
        }
        policy.isSaved =
            policy.fate != PolicyFate::PassedOver || (m_record && !isNewerThanRecord(policy.topic, policy.identity));
    }
    return choice;
}

} // namespace HVBEnterprise::agent
