#include "apps/sentrelctl/decisions/PolicyRuling.h"

#include "base/Paths.h"
#include "base/PrintableText.h"
#include "platform/hvbagent/PolicyStore.h"
#include "policy/PolicyKeys.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fmt/format.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace Sentrel::ctl {
namespace {

namespace agent = HVBEnterprise::agent;
namespace keys = policy::keys;

/// The key without which a policy leaves a setting as it is.
constexpr std::array<std::pair<std::string_view, policy::PolicyKey>, 12> kRulers{{
    {"allow_block", keys::kSiteCount},
    {"private_ranges", keys::kRangeCount},
    {"Enabled", keys::kEnable},
    {"GenPolicyRPXUnReachableAction", keys::kUnreachable},
    {"CAT_Enabled", keys::kCategorize},
    {"UNCAT_Block", keys::kCategorize},
    {"GenPolicyBlockPhishingAction", keys::kPhishing},
    {"RedSiteAction", keys::kRatings},
    {"YellowSiteAction", keys::kRatings},
    {"UnverifiedSiteAction", keys::kRatings},
    {"GenPolicyUnverifiedAction", keys::kUnverified},
    {"ALLOW_OVER_Block", keys::kSiteCount},
}};

std::string policyName(const agent::PolicyIdentity& identity) {
    return identity.version ? fmt::format("the policy in force, version {},", *identity.version)
                            : "the policy in force";
}

/// A value that says to leave things as they are does not rule them.
bool leavesThemAsTheyAre(const policy::PolicyKey& key, int value) {
    constexpr int unsetCategories = -1;
    return (key.name == keys::kRatings.name && value == 0) ||
           (key.name == keys::kCategorize.name && value == unsetCategories);
}

bool rules(const HVBEnterprise::SectionsHandle& document, const policy::PolicyKey& key) {
    const agent::DocumentValues values(document);
    const std::optional<int> value = values.number(key, 0);
    return policy::isEnforced(values.number(keys::kEnforce, 0)) && value && !leavesThemAsTheyAre(key, *value);
}

LocalPolicy noPolicy(bool isManaged, const char* why) {
    return {isManaged, true, std::nullopt, why};
}

LocalPolicy unknownPolicy(std::optional<bool> isManaged, std::string why) {
    return {isManaged, false, std::nullopt, std::move(why)};
}

} // namespace

LocalPolicy localPolicy() {
    if (::access(paths::agentConfiguration().c_str(), F_OK) != 0) {
        return errno == ENOENT ? noPolicy(false, "this machine is not managed")
                               : unknownPolicy(std::nullopt, "this user cannot see whether this machine is managed");
    }
    try {
        const std::optional<std::string> message = agent::PolicyStore(paths::agentPolicy()).load();
        if (!message) {
            return noPolicy(true, "this machine is managed, and no policy has come yet");
        }
        agent::PolicyReading reading = agent::readPolicyMessage(*message, std::nullopt);
        if (!reading.refused.empty()) {
            return unknownPolicy(true, "the saved policy cannot be read: " + text::printable(reading.refused));
        }
        return {true, false, std::move(reading), ""};
    } catch (const std::system_error& error) {
        return unknownPolicy(true, error.code().value() == EACCES
                                       ? "not known: only root and the daemon's user may read the policy"
                                       : "not known: " + text::printable(error.what()));
    }
}

PolicyRuling rulingOf(std::string_view setting, const LocalPolicy& local) {
    if (!local.policy) {
        return {local.isThereNone ? std::optional(false) : std::nullopt, local.why};
    }
    const auto* const ruler =
        std::find_if(kRulers.begin(), kRulers.end(), [setting](const auto& each) { return each.first == setting; });
    if (ruler == kRulers.end()) {
        return {false, "no policy says anything of this"};
    }
    const bool isRuled = rules(local.policy->sections, ruler->second);
    return {isRuled, fmt::format("{} {} it ({})", policyName(local.policy->identity), isRuled ? "sets" : "leaves",
                                 ruler->second.name)};
}

Json rulingJson(const PolicyRuling& ruling, const LocalPolicy& local) {
    const auto known = [](std::optional<bool> value) { return value ? Json(*value) : Json(nullptr); };
    return Json{
        {"managed", known(local.isManaged)}, {"ruled", known(ruling.isRuled)}, {"text", text::validUtf8(ruling.text)}};
}

} // namespace Sentrel::ctl
