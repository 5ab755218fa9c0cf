#include "apps/sentrelctl/policy/PolicyReport.h"

#include "base/PrintableText.h"
#include "policy/PolicyLimits.h"

#include <algorithm>
#include <fmt/format.h>
#include <string_view>

namespace Sentrel::ctl {

using Sentrel::text::printable;
using Sentrel::text::validUtf8;
namespace {

constexpr std::size_t kMaxProblems = 50; // a list with gaps has a problem for each of its entries

std::string verdictText(const CheckedPolicy& policy) {
    const std::string_view verdict = policy.verdict();
    if (verdict == "enforced") {
        return "It would be put into force as a whole.\n";
    }
    if (verdict == "gap") {
        return "It would be put into force with sites and actions that do not fit.\n";
    }
    if (verdict == "not enforced") {
        return "It would be taken, but nothing of it would be put into force.\n";
    }
    return verdict == "fails" ? "It would not be put into force as a whole.\n" : "It would be refused.\n";
}

} // namespace

const char* CheckedPolicy::verdict() const {
    if (!reading.refused.empty()) {
        return "refused";
    }
    if (!check.isEnforced) {
        return "not enforced";
    }
    if (!check.isWhole()) {
        return "fails";
    }
    return check.gap.empty() ? "enforced" : "gap";
}

CheckedPolicy checkedPolicy(std::string message, const HVBEnterprise::agent::PublicKeys& keys) {
    CheckedPolicy policy{std::move(message), {}, {}};
    policy.reading = HVBEnterprise::agent::readPolicyMessage(policy.message, keys);
    if (policy.reading.refused.empty()) {
        policy.check = checkPolicy(policy.reading.sections);
    }
    return policy;
}

std::string policyName(const HVBEnterprise::agent::PolicyIdentity& identity) {
    std::string name = identity.version ? fmt::format("policy {}", *identity.version) : "policy without a version";
    if (identity.epoch != policy::kFirstEpoch) {
        name += fmt::format(" of epoch {}", identity.epoch);
    }
    return identity.id.empty() ? name : fmt::format("{} ({})", name, printable(identity.id));
}

std::string problemsText(const CheckedPolicy& policy, const Palette& palette) {
    if (!policy.reading.refused.empty()) {
        return fmt::format("{}refused{}  {}\n", palette.alarm, palette.plain, printable(policy.reading.refused));
    }
    std::vector<PolicyProblem> problems = policy.check.problems;
    std::stable_partition(problems.begin(), problems.end(), [](const PolicyProblem& each) { return each.isFatal; });
    std::string text;
    for (std::size_t at = 0; at < std::min(problems.size(), kMaxProblems); ++at) {
        const PolicyProblem& each = problems[at];
        text += fmt::format("{}{}{}  {}: {}\n", each.isFatal ? palette.alarm : palette.caution,
                            each.isFatal ? "fails  " : "warning", palette.plain, printable(each.place),
                            printable(each.what));
    }
    if (problems.size() > kMaxProblems) {
        text += fmt::format("and {} more\n", problems.size() - kMaxProblems);
    }
    return text;
}

std::string policyText(const CheckedPolicy& policy, const Palette& palette) {
    std::string text = fmt::format("{}{}{}\n", palette.strong, policyName(policy.reading.identity), palette.plain);
    for (const std::string& effect : policy.check.effects) {
        text += fmt::format("    {}\n", printable(effect));
    }
    return text + problemsText(policy, palette) + verdictText(policy);
}

Json policyJson(const CheckedPolicy& policy) {
    const auto& identity = policy.reading.identity;
    Json json{{"verdict", policy.verdict()},
              {"epoch", nullptr},
              {"version", nullptr},
              {"id", nullptr},
              {"sha256", identity.sha256}};
    if (identity.version) {
        json["epoch"] = identity.epoch;
        json["version"] = *identity.version;
        json["id"] = validUtf8(identity.id);
    }
    json["effects"] = Json::array();
    for (const std::string& effect : policy.check.effects) {
        json["effects"].push_back(validUtf8(effect));
    }
    json["refused"] = nullptr;
    if (!policy.reading.refused.empty()) {
        json["refused"] = validUtf8(policy.reading.refused);
    }
    json["gap"] = policy.check.gap.empty() ? Json(nullptr) : Json(validUtf8(policy.check.gap));
    json["problems"] = Json::array();
    for (const PolicyProblem& each : policy.check.problems) {
        json["problems"].push_back(
            {{"fatal", each.isFatal}, {"place", validUtf8(each.place)}, {"what", validUtf8(each.what)}});
    }
    return json;
}

std::string whyNotFine(const CheckedPolicy& policy) {
    if (!policy.reading.refused.empty()) {
        return policy.reading.refused;
    }
    const auto fatal = std::find_if(policy.check.problems.begin(), policy.check.problems.end(),
                                    [](const PolicyProblem& each) { return each.isFatal; });
    return fatal == policy.check.problems.end() ? policy.check.gap : fatal->place + ": " + fatal->what;
}

} // namespace Sentrel::ctl
