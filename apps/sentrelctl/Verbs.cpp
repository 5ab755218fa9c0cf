// Every verb and every word that groups verbs, in the order in which the help lists them.
#include "apps/sentrelctl/Verbs.h"

#include <array>
#include <string_view>
#include <utility>

namespace Sentrel::ctl {

const char* groupDescription(std::string_view group) {
    static constexpr std::array<std::pair<std::string_view, const char*>, 13> descriptions{{
        {"hub", "The hub that connects the modules"},
        {"event", "Browser events"},
        {"prefs", "The preferences"},
        {"list", "The list of URLs that are allowed or blocked"},
        {"categories", "The content categories that are blocked"},
        {"requests", "What users ask for access to, and what is granted"},
        {"debug", "The debug logging of the daemon"},
        {"proxy", "The proxy to the reputation service"},
        {"settings", "The daemon's settings file"},
        {"ratings", "The lists of rated sites"},
        {"policy", "The policies of managed machines"},
        {"properties", "What managed machines tell of themselves"},
        {"agent", "The management agent of this machine"},
    }};
    for (const auto& [name, description] : descriptions) {
        if (name == group) {
            return description;
        }
    }
    return "";
}

std::span<const VerbTable> allVerbs() {
    static constexpr std::array<VerbTable, 20> tables{
        statusVerbs, doctorVerbs,   hubVerbs,      eventVerbs,   decryptVerbs, logVerbs,    preferenceVerbs,
        listVerbs,   listFileVerbs, categoryVerbs, requestVerbs, checkVerbs,   ratingVerbs, watchVerbs,
        debugVerbs,  proxyVerbs,    settingsVerbs, policyVerbs,  fleetVerbs,   agentVerbs};
    return tables;
}

} // namespace Sentrel::ctl
