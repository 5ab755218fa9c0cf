// From the policies that came to the one in force.
//
// Everything here runs on the callback thread. The choice among what came is PolicyInForce's. What is new there is
// enforced; the module's answer, the rows that the settings file lacks afterwards and what of the lists nobody can take
// become the statement.
//
// An attempt fails when something throws on the way, or when rows are missing afterwards. It is made again after a
// pause that doubles, and at once when a hub that was away is back; so is the look at the rows, when nobody could tell.
// The module's plain "no" is about the document, which stays the same: it is asked again only when a policy comes, be
// it the same one, or the machine starts. A policy that could not be saved is asked for again after pauses of its own.
//
// What must stay so:
// - An attempt that is broken off, because the client ends, is no failure: the next start enforces the saved policy.
// The
//   statement says that it is not known whether that one is enforced.
#include "platform/hvbagent/PolicyWork.h"

#include "hub/Exceptions.h"
#include "platform/hvbagent/AgentLimits.h"
#include "platform/hvbagent/Encoding.h"
#include "platform/hvbagent/StoredRows.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <utility>

namespace HVBEnterprise::agent {
namespace {

std::string nameOf(const PolicyIdentity& identity) {
    return "policy " + (identity.version ? ageText(ageOf(identity)) + " " : "") + "(SHA-256 " + identity.sha256 + ")";
}

/// Whether the policy in force came once more.
bool cameAgain(const PolicyChoice& choice) {
    return std::any_of(choice.judged.begin(), choice.judged.end(),
                       [](const JudgedPolicy& judged) { return judged.fate == PolicyFate::InForce; });
}

JudgedPolicy oversized(const PolicyTopic& topic, const OversizedPolicy& policy) {
    JudgedPolicy judged;
    judged.topic = topic;
    judged.identity.sha256 = policy.sha256;
    judged.why = "the document: is larger than " + std::to_string(kMaxPolicyBytes) + " bytes, with " +
                 std::to_string(policy.bytes);
    return judged;
}

} // namespace

PolicyWork::PolicyWork(std::wstring softwareId, PolicyInForce policy, std::shared_ptr<const BreakOff> breakOff,
                       std::shared_ptr<AgentLog> log)
    : m_softwareId(std::move(softwareId)), m_breakOff(std::move(breakOff)), m_log(std::move(log)),
      m_policy(std::move(policy)), m_attempts(kFirstEnforcementPause, kLastEnforcementPause),
      m_saves(kFirstEnforcementPause, kLastEnforcementPause) {}

PolicyWork::Done PolicyWork::enforceSaved(IAgentPolicyEnforcement& service) {
    if (const std::string trouble = m_policy.restore(); !trouble.empty()) {
        m_log->error((m_policy.isThere() ? "the record of the saved policy: "
                                         : "the saved policy cannot be used, none is in force: ") +
                     trouble);
    }
    if (!m_policy.isThere()) {
        return Done::News;
    }
    m_log->information("enforcing the saved policy, " + ageText(ageOf(m_policy.identity())));
    stand();
    enforce(service);
    return Done::Enforced;
}

PolicyWork::Done PolicyWork::look(WaitingPolicies::Arrivals arrivals, IAgentPolicyEnforcement& service) {
    if (arrivals.all) {
        forgetOthers(*arrivals.all);
    }
    const PolicyChoice choice = m_policy.choose(readable(std::move(arrivals.messages)));
    if (!choice.trouble.empty()) {
        m_log->warning("the policy in force cannot be recorded: " + choice.trouble);
    }
    const bool isNew = m_policy.isThere() && stand();
    for (const JudgedPolicy& judged : choice.judged) {
        judge(judged);
    }
    const bool isAgain = !isNew && cameAgain(choice);
    if (isNew || (isAgain && !m_statement.standing->enforced.value_or(false))) {
        enforce(service);
        return Done::Enforced;
    }
    // Somebody may have changed a list since.
    if (isAgain && m_due == Due::Nothing && compare() == Rows::Unknown) {
        tryLater(Due::Comparison);
    }
    return Done::News;
}

/// What is said of topics on which the broker has nothing any more is over.
void PolicyWork::forgetOthers(const std::set<PolicyTopic>& topics) {
    for (auto each = m_statement.declined.begin(); each != m_statement.declined.end();) {
        each = topics.count(each->first) == 0 ? m_statement.declined.erase(each) : std::next(each);
    }
}

/// Those that can be read. Of the others the statement tells, or forgets what it told of their topics.
std::vector<ArrivedPolicy> PolicyWork::readable(WaitingPolicies::Messages messages) {
    std::vector<ArrivedPolicy> arrived;
    for (auto& [topic, message] : messages) {
        m_unsaved.erase(topic);
        if (auto* const text = std::get_if<std::string>(&message)) {
            arrived.push_back({topic, std::move(*text)});
        } else if (const auto* const large = std::get_if<OversizedPolicy>(&message)) {
            judge(oversized(topic, *large));
        } else {
            m_statement.declined.erase(topic);
        }
    }
    if (m_unsaved.empty()) {
        m_saves.reset();
    }
    return arrived;
}

/// Tells what became of a policy, and remembers it.
void PolicyWork::judge(const JudgedPolicy& judged) {
    if (judged.fate == PolicyFate::Refused) {
        m_log->warning(nameOf(judged.identity) + " is refused: " + judged.why);
    } else if (judged.fate == PolicyFate::PassedOver) {
        m_log->information(nameOf(judged.identity) + " of " + judged.topic.text() + " is passed over: " + judged.why);
    }
    m_statement.take(judged, timeText());
    if (!judged.isSaved) {
        m_unsaved.insert(judged.topic);
        m_saves.later(Clock::now());
    }
}

/// Makes the statement's policy the one in force. @return whether it is another one.
bool PolicyWork::stand() {
    std::optional<StandingPolicy>& standing = m_statement.standing;
    if (standing && standing->identity.sha256 == m_policy.identity().sha256) {
        standing->topic = m_policy.topic(); // it may have been unknown
        return false;
    }
    m_policy.sections().breakOffWith(m_breakOff->flag());
    m_statement.replaceStanding({.identity = m_policy.identity(),
                                 .topic = m_policy.topic(),
                                 .since = m_policy.since(),
                                 .enforced = {},
                                 .rowsMissing = {},
                                 .leftOut = {}},
                                timeText());
    allIsWell();
    return true;
}

PolicyWork::Outcome PolicyWork::callService(IAgentPolicyEnforcement& service, std::string& why) const {
    try {
        return service.enforcePolicy(m_softwareId, m_policy.sections()) ? Outcome::Enforced : Outcome::NotEnforced;
    } catch (const BrokenOff&) {
        return Outcome::BrokenOff;
    } catch (const HVB::HVBException& error) {
        why = error.message();
    } catch (const std::exception& error) {
        why = error.what();
    } catch (...) {
        why = "unknown reason";
    }
    return Outcome::Failed;
}

void PolicyWork::enforce(IAgentPolicyEnforcement& service) {
    m_statement.standing->leftOut = Sentrel::policy::leftOutOf(DocumentValues(m_policy.sections()));
    std::string why;
    const Outcome outcome = callService(service, why);
    if (outcome == Outcome::BrokenOff) {
        m_statement.standing->enforced.reset();
        m_log->information(nameOf(m_policy.identity()) + " is not enforced to the end: the next start does that");
        return;
    }
    note(outcome, shortPrintable(why));
}

void PolicyWork::note(Outcome outcome, const std::string& why) {
    const std::string name = nameOf(m_policy.identity());
    m_statement.standing->enforced = outcome == Outcome::Enforced;
    if (outcome == Outcome::Enforced) {
        m_statement.failed.reset();
        m_log->information(name + " is enforced");
        settle(compare());
        return;
    }
    const bool isDocument = outcome == Outcome::NotEnforced;
    m_statement.failed = FailedAttempt{m_policy.identity(),
                                       isDocument ? "the module could not put all of it into force" : why, timeText()};
    m_log->warning(name + " is in force, but its enforcement failed" + (isDocument ? "" : ": " + why));
    if (isDocument) {
        allIsWell(); // as far as another attempt could make it
    } else {
        tryLater(Due::Enforcement);
    }
}

/// A pass reports success also when the settings file took only a part of a list.
PolicyWork::Rows PolicyWork::compare() {
    if (!m_statement.standing->enforced.value_or(false)) {
        return Rows::Stored; // nobody expects them
    }
    const StoredRows rows = compareWithFile(m_policy.sections(), m_breakOff->fd());
    m_statement.standing->rowsMissing = rows.missing;
    if (!rows.missing) {
        m_log->information("whether the policy's lists are stored cannot be seen: " + rows.trouble);
        return Rows::Unknown;
    }
    if (*rows.missing > 0) {
        // Of a policy that came again the rows may be missing since somebody else changed a list.
        m_log->warning(std::to_string(*rows.missing) +
                       " rows of the policy's lists are not in the settings file: what " +
                       "of them is in force is so until the next start");
        return Rows::Missing;
    }
    return Rows::Stored;
}

/// What the look at the rows after an enforcement means for the next attempt.
void PolicyWork::settle(Rows rows) {
    if (rows == Rows::Stored) {
        allIsWell();
    } else {
        tryLater(rows == Rows::Missing ? Due::Enforcement : Due::Comparison);
    }
}

void PolicyWork::tryLater(Due due) {
    const auto now = Clock::now();
    m_due = due;
    m_attempts.later(now);
    m_isHubAway = !isHubThere(m_breakOff->fd());
    m_hubLook = now + kHubLook;
}

void PolicyWork::allIsWell() {
    m_due = Due::Nothing;
    m_attempts.reset();
    m_isHubAway = false;
}

std::optional<PolicyWork::Clock::time_point> PolicyWork::nextAttempt() const {
    std::optional<Clock::time_point> next = m_attempts.at();
    if (next && m_isHubAway) {
        next = std::min(*next, m_hubLook);
    }
    if (m_saves.at()) {
        next = next ? std::min(*next, *m_saves.at()) : *m_saves.at();
    }
    return next;
}

PolicyWork::Done PolicyWork::attemptAgain(IAgentPolicyEnforcement& service) {
    const auto now = Clock::now();
    if (m_saves.isDue(now)) {
        m_saves.begin();
        m_wanted.assign(m_unsaved.begin(), m_unsaved.end());
    }
    bool isDue = m_attempts.isDue(now);
    if (!isDue && m_isHubAway && now >= m_hubLook) {
        m_hubLook = now + kHubLook;
        isDue = isHubThere(m_breakOff->fd());
    }
    if (!isDue) {
        return Done::Nothing;
    }
    m_attempts.begin();
    if (std::exchange(m_due, Due::Nothing) == Due::Enforcement) {
        enforce(service);
        return Done::Enforced;
    }
    settle(compare());
    return Done::News;
}

std::string PolicyWork::statement() const {
    return statementDocument(m_statement, timeText());
}

} // namespace HVBEnterprise::agent
