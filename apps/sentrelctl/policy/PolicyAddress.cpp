#include "apps/sentrelctl/policy/PolicyAddress.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace Sentrel::ctl {
namespace {

namespace agent = HVBEnterprise::agent;

std::string wordsFor(const agent::Audience& audience) {
    return audience.machine.empty() ? fmt::format("group {} of {}", audience.group, audience.site)
                                    : fmt::format("machine {} of {}", audience.machine, audience.site);
}

bool areSame(const agent::Audience& one, const agent::Audience& other) {
    return one.site == other.site && one.machine == other.machine && one.group == other.group;
}

} // namespace

std::string addressed(std::string document, const agent::Audience& audience) {
    const agent::PolicyReading reading = agent::readPolicyDocument(document);
    if (!reading.refused.empty() || reading.identity.audience) {
        return document;
    }
    auto json = nlohmann::ordered_json::parse(document);
    json["audience"] = {{"site", audience.site}};
    if (audience.machine.empty()) {
        json["audience"]["group"] = audience.group;
    } else {
        json["audience"]["machine"] = audience.machine;
    }
    return json.dump();
}

std::string whyNotFor(const agent::PolicyIdentity& identity, const agent::Audience& audience) {
    if (!identity.audience || areSame(*identity.audience, audience)) {
        return {};
    }
    return fmt::format("it says that it is for {}, and not for {}", wordsFor(*identity.audience), wordsFor(audience));
}

} // namespace Sentrel::ctl
