// From the policies that came to the one in force.
//
// Everything here runs on the callback thread. The choice among what came is PolicyInForce's. What is new there is
// enforced; the module's answer, the rows that the settings file lacks afterwards and what of the lists nobody can take
// become the statement.
//
// An attempt fails when something throws on the way, or when rows are missing afterwards. It is made again after a
// pause that doubles, and at once when a hub that was away is back. The module's plain "no" is about the document,
// which stays the same: it is not asked again until another policy comes, or the machine starts.
//
// What must stay so:
// - An attempt that is broken off, because the client ends, is no failure: the next start enforces the saved policy.
// - A statement says nothing of a policy in force before it was tried to enforce it.
#include "platform/hvbagent/PolicyWork.h"

#include "hub/Exceptions.h"
#include "platform/hvbagent/AgentLimits.h"
#include "platform/hvbagent/Encoding.h"
#include "platform/hvbagent/StoredRows.h"

#include <algorithm>
#include <exception>
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
      m_policy(std::move(policy)), m_pause(kFirstEnforcementPause), m_random(std::random_device{}()) {}

bool PolicyWork::enforceSaved(IAgentPolicyEnforcement& service) {
    if (const std::string trouble = m_policy.restore(); !trouble.empty()) {
        m_log->error((m_policy.isThere() ? "the record of the saved policy: "
                                         : "the saved policy cannot be used, none is in force: ") +
                     trouble);
    }
    if (!m_policy.isThere()) {
        return false;
    }
    m_log->information("enforcing the saved policy, " + ageText(ageOf(m_policy.identity())));
    stand();
    enforce(service);
    return true;
}

bool PolicyWork::look(WaitingPolicies::Messages arrived, IAgentPolicyEnforcement& service) {
    const PolicyChoice choice = m_policy.choose(keptOf(std::move(arrived)));
    if (!choice.trouble.empty()) {
        m_log->warning("the policy in force cannot be recorded: " + choice.trouble);
    }
    for (const JudgedPolicy& judged : choice.judged) {
        tell(judged);
        m_statement.take(judged, timeText());
        if (!judged.isSaved) {
            m_wanted.push_back(judged.topic);
            tryLater();
        }
    }
    if (choice.isNew) {
        stand();
    }
    const bool isDue = choice.isNew || (cameAgain(choice) && !m_statement.standing->enforced.value_or(false));
    if (isDue) {
        enforce(service);
    } else if (m_policy.isThere() && !m_again) {
        (void)compare(); // somebody may have changed a list since
    }
    return isDue;
}

/// Those that can be read. Of the others the statement tells, or forgets what it told of their topics.
std::vector<ArrivedPolicy> PolicyWork::keptOf(WaitingPolicies::Messages arrived) {
    std::vector<ArrivedPolicy> kept;
    for (auto& [topic, message] : arrived) {
        if (auto* const text = std::get_if<std::string>(&message)) {
            kept.push_back({topic, std::move(*text)});
        } else if (const auto* const large = std::get_if<OversizedPolicy>(&message)) {
            const JudgedPolicy judged = oversized(topic, *large);
            tell(judged);
            m_statement.take(judged, timeText());
        } else {
            m_statement.declined.erase(topic);
        }
    }
    return kept;
}

void PolicyWork::tell(const JudgedPolicy& judged) const {
    if (judged.fate == PolicyFate::Refused) {
        m_log->warning(nameOf(judged.identity) + " is refused: " + judged.why);
    } else if (judged.fate == PolicyFate::PassedOver) {
        m_log->information(nameOf(judged.identity) + " of " + judged.topic.text() + " is passed over: " + judged.why);
    }
}

/// Another policy is in force from now on.
void PolicyWork::stand() {
    m_policy.sections().breakOffWith(m_breakOff->flag());
    m_statement.standing = StandingPolicy{.identity = m_policy.identity(),
                                          .topic = m_policy.topic(),
                                          .since = m_policy.since(),
                                          .enforced = {},
                                          .rowsMissing = {},
                                          .leftOut = {}};
    m_statement.failed.reset();
    allIsWell();
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
    std::string why;
    const Outcome outcome = callService(service, why);
    if (outcome == Outcome::BrokenOff || m_breakOff->hasBegun()) {
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
        m_statement.standing->leftOut = Sentrel::policy::leftOutOf(DocumentValues(m_policy.sections()));
        m_isDue = !compare();
        if (m_isDue) {
            tryLater();
        }
        return;
    }
    const bool isDocument = outcome == Outcome::NotEnforced;
    m_statement.failed = FailedAttempt{m_policy.identity(),
                                       isDocument ? "the module could not put all of it into force" : why, timeText()};
    m_log->warning(name + " is in force, but its enforcement failed" + (isDocument ? "" : ": " + why));
    if (isDocument) {
        allIsWell(); // as far as another attempt could make it
    } else {
        m_isDue = true;
        tryLater();
    }
}

/// A pass reports success also when the settings file took only a part of a list. @return false when rows are missing.
bool PolicyWork::compare() {
    if (!m_statement.standing->enforced.value_or(false)) {
        return true;
    }
    const StoredRows rows = compareWithFile(m_policy.sections(), m_breakOff->fd());
    m_statement.standing->rowsMissing = rows.missing;
    if (!rows.missing) {
        m_log->information("whether the policy's lists are stored cannot be seen: " + rows.trouble);
        tryLater();
        return true;
    }
    allIsWell();
    if (*rows.missing > 0) {
        // Of a policy that came again the rows may be missing since somebody else changed a list.
        m_log->warning(std::to_string(*rows.missing) +
                       " rows of the policy's lists are not in the settings file: what " +
                       "of them is in force is so until the next start");
    }
    return *rows.missing == 0;
}

void PolicyWork::tryLater() {
    std::uniform_int_distribution<std::int64_t> drawn(m_pause.count() / 2, m_pause.count());
    const auto now = Clock::now();
    m_again = now + std::chrono::milliseconds(drawn(m_random));
    m_pause = std::min<std::chrono::milliseconds>(m_pause * 2, kLastEnforcementPause);
    m_isHubAway = !isHubThere(m_breakOff->fd());
    m_hubLook = now + kHubLook;
}

void PolicyWork::allIsWell() {
    m_again.reset();
    m_isDue = false;
    m_isHubAway = false;
    m_pause = kFirstEnforcementPause;
}

std::optional<PolicyWork::Clock::time_point> PolicyWork::nextAttempt() const {
    return m_again && m_isHubAway ? std::min(*m_again, m_hubLook) : m_again;
}

bool PolicyWork::attemptAgain(IAgentPolicyEnforcement& service) {
    const auto now = Clock::now();
    if (m_isHubAway && now < *m_again) {
        m_hubLook = now + kHubLook;
        if (!isHubThere(m_breakOff->fd())) {
            return false;
        }
    }
    m_again.reset();
    m_isHubAway = false;
    if (std::exchange(m_isDue, false)) {
        enforce(service);
    } else if (m_policy.isThere()) {
        (void)compare();
    }
    return true;
}

std::vector<PolicyTopic> PolicyWork::takeWanted() {
    return m_again ? std::vector<PolicyTopic>() : std::exchange(m_wanted, {});
}

std::string PolicyWork::statement() const {
    return statementDocument(m_statement, timeText());
}

} // namespace HVBEnterprise::agent
