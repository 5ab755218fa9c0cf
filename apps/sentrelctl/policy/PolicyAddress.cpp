#include "apps/sentrelctl/policy/PolicyAddress.h"

#include <fmt/format.h>

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
    // It is an object with a version at least. What is written there stays byte for byte.
    const std::string member = audience.machine.empty() ? fmt::format(R"("group": "{}")", audience.group)
                                                        : fmt::format(R"("machine": "{}")", audience.machine);
    document.insert(document.find('{') + 1,
                    fmt::format(R"("audience": {{"site": "{}", {}}}, )", audience.site, member));
    return document;
}

std::string whyNotFor(const agent::PolicyIdentity& identity, const agent::Audience& audience) {
    if (!identity.audience) { // it is signed, otherwise it would have got one
        return audience.group.empty() ? "" : "it does not say whom it is for, so that no group's machines take it";
    }
    if (areSame(*identity.audience, audience)) {
        return {};
    }
    return fmt::format("it says that it is for {}, and not for {}", wordsFor(*identity.audience), wordsFor(audience));
}

} // namespace Sentrel::ctl
