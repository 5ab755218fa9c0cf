#include "platform/hvbagent/PolicyStatement.h"

#include <nlohmann/json.hpp>

#include <utility>

namespace HVBEnterprise::agent {
namespace {

using nlohmann::json;

json identityJson(const PolicyIdentity& identity) {
    json members = {{"epoch", nullptr}, {"version", nullptr}, {"id", nullptr}, {"sha256", identity.sha256}};
    if (identity.version) {
        members["epoch"] = identity.epoch;
        members["version"] = *identity.version;
        members["id"] = identity.id;
    }
    return members;
}

const char* wordsFor(Sentrel::policy::LeftOutReason reason) {
    using Sentrel::policy::LeftOutReason;
    switch (reason) {
    case LeftOutReason::Missing:
        return "is missing";
    case LeftOutReason::TooLong:
        return "is too long";
    case LeftOutReason::Empty:
        return "is empty";
    case LeftOutReason::Version6:
        return "is a range of version 6";
    case LeftOutReason::BeyondCount:
        return "is beyond the count";
    }
    return "is not taken";
}

json leftOutJson(const Sentrel::policy::LeftOut& leftOut) {
    json first = json::array();
    for (const auto& entry : leftOut.first) {
        first.push_back({{"key", entry.key}, {"why", wordsFor(entry.reason)}});
    }
    return {{"count", leftOut.count}, {"first", std::move(first)}};
}

/// Whether all of the policy is in force; null where nobody can tell.
json wholeJson(const StandingPolicy& standing) {
    if (!standing.enforced) {
        return nullptr;
    }
    if (!*standing.enforced || standing.leftOut.count > 0 || standing.rowsMissing.value_or(0) > 0) {
        return false;
    }
    return standing.rowsMissing ? json(true) : json(nullptr);
}

json standingJson(const StandingPolicy& standing) {
    json members = identityJson(standing.identity);
    members["topic"] = standing.topic ? json(standing.topic->text()) : json(nullptr);
    members["since"] = standing.since;
    members["enforced"] = standing.enforced ? json(*standing.enforced) : json(nullptr);
    members["whole"] = wholeJson(standing);
    members["rows_missing"] = standing.rowsMissing ? json(*standing.rowsMissing) : json(nullptr);
    members["left_out"] = leftOutJson(standing.leftOut);
    return members;
}

json failedJson(const FailedAttempt& failed) {
    json members = identityJson(failed.identity);
    members["why"] = failed.why;
    members["time"] = failed.time;
    return members;
}

json declinedJson(const DeclinedPolicy& declined) {
    json members = identityJson(declined.judged.identity);
    members["topic"] = declined.judged.topic.text();
    members["why"] = declined.judged.why;
    members["time"] = declined.time;
    return members;
}

/// The last policy that was refused.
const DeclinedPolicy* lastRefused(const PolicyStatement& statement) {
    const DeclinedPolicy* last = nullptr;
    for (const auto& [topic, declined] : statement.declined) {
        if (declined.judged.fate == PolicyFate::Refused && (last == nullptr || declined.number > last->number)) {
            last = &declined;
        }
    }
    return last;
}

} // namespace

void PolicyStatement::take(const JudgedPolicy& judged, const std::string& time) {
    if (judged.fate == PolicyFate::InForce) {
        declined.erase(judged.topic);
        return;
    }
    const auto before = declined.find(judged.topic);
    const bool isAgain = before != declined.end() && before->second.judged.fate == judged.fate &&
                         before->second.judged.identity.sha256 == judged.identity.sha256;
    declined.insert_or_assign(judged.topic, DeclinedPolicy{judged, isAgain ? before->second.time : time, ++judgements});
}

void PolicyStatement::replaceStanding(StandingPolicy next, const std::string& time) {
    if (standing && standing->topic && next.topic && standing->topic != next.topic) {
        JudgedPolicy former;
        former.topic = *standing->topic;
        former.identity = standing->identity;
        former.fate = PolicyFate::PassedOver;
        former.why = "it is older, or less near, than what " + next.topic->text() + " has";
        declined.try_emplace(former.topic, DeclinedPolicy{former, time, ++judgements});
    }
    standing = std::move(next);
    failed.reset();
}

std::string statementDocument(const PolicyStatement& statement, const std::string& time) {
    const DeclinedPolicy* const refused = lastRefused(statement);
    json passedOver = json::array();
    for (const auto& [topic, declined] : statement.declined) {
        if (declined.judged.fate == PolicyFate::PassedOver) {
            passedOver.push_back(declinedJson(declined));
        }
    }
    const json document = {{"time", time},
                           {"in_force", statement.standing ? standingJson(*statement.standing) : json(nullptr)},
                           {"failed", statement.failed ? failedJson(*statement.failed) : json(nullptr)},
                           {"refused", refused != nullptr ? declinedJson(*refused) : json(nullptr)},
                           {"passed_over", std::move(passedOver)}};
    return document.dump(-1, ' ', false, json::error_handler_t::replace);
}

} // namespace HVBEnterprise::agent
