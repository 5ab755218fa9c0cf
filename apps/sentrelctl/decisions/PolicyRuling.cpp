#include "apps/sentrelctl/decisions/PolicyRuling.h"

#include "base/PrintableText.h"
#include "policy/RuledSettings.h"

#include <algorithm>
#include <fmt/format.h>

namespace Sentrel::ctl {

PolicyRuling rulingOf(std::string_view setting, const std::optional<settings::MachinePolicy>& policy) {
    if (!policy) {
        return {std::nullopt, "not known: the settings keeper cannot see whether this machine is managed"};
    }
    if (!policy->isManaged) {
        return {false, "this machine is not managed"};
    }
    if (!policy->trouble.empty()) {
        return {std::nullopt, "not known: the saved policy cannot be read: " + text::printable(policy->trouble)};
    }
    if (!policy->version) {
        return {false, "this machine is managed, and no policy has come yet"};
    }
    const std::optional<policy::PolicyKey> ruler = policy::rulerOf(setting);
    if (!ruler) {
        return {false, "no policy says anything of this"};
    }
    const bool isRuled = std::find(policy->rules.begin(), policy->rules.end(), setting) != policy->rules.end();
    return {isRuled, fmt::format("the policy in force, version {}, {} it ({})", *policy->version,
                                 isRuled ? "sets" : "leaves", ruler->name)};
}

Json rulingJson(const PolicyRuling& ruling, const std::optional<settings::MachinePolicy>& policy) {
    return Json{{"managed", policy ? Json(policy->isManaged) : Json(nullptr)},
                {"ruled", ruling.isRuled ? Json(*ruling.isRuled) : Json(nullptr)},
                {"text", text::validUtf8(ruling.text)}};
}

} // namespace Sentrel::ctl
