// What a machine's statements say of one policy.
#pragma once

#include "platform/hvbagent/Encoding.h"
#include "tests/support/MqttObserver.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>

namespace testing_support {

/// One policy in a statement: its members there, with "fate" "in force", "refused" or "passed over". Nothing when the
/// statement does not speak of it, or only that it is being enforced.
inline std::optional<nlohmann::json> fateIn(const nlohmann::json& statement, const std::string& sha256) {
    const auto found = [&](const nlohmann::json& policy, const char* fate) {
        nlohmann::json answer = policy;
        answer["fate"] = fate;
        return answer;
    };
    const nlohmann::json& inForce = statement["in_force"];
    if (inForce.is_object() && inForce["sha256"] == sha256) {
        return inForce["enforced"].is_null() ? std::nullopt : std::optional(found(inForce, "in force"));
    }
    if (statement["refused"].is_object() && statement["refused"]["sha256"] == sha256) {
        return found(statement["refused"], "refused");
    }
    for (const nlohmann::json& each : statement["passed_over"]) {
        if (each["sha256"] == sha256) {
            return found(each, "passed over");
        }
    }
    return std::nullopt;
}

/// What the next statement on @p topic that speaks of the document @p policy says of it; null when none comes.
inline nlohmann::json answerOn(MqttObserver& observer, const std::string& topic, const std::string& policy) {
    const std::string sha256 = HVBEnterprise::agent::sha256Of(policy);
    while (const auto message = observer.next(topic)) {
        if (const auto answer = fateIn(nlohmann::json::parse(message->payload), sha256)) {
            return *answer;
        }
    }
    return {};
}

} // namespace testing_support
