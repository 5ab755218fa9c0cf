// sentrelctl policy results, properties show and state: what the machines say of themselves.
#include "apps/sentrelctl/Verbs.h"
#include "apps/sentrelctl/fleet/FleetOptions.h"
#include "apps/sentrelctl/fleet/MachineDocuments.h"
#include "apps/sentrelctl/fleet/StatementText.h"
#include "apps/sentrelctl/terminal/Failure.h"

#include <array>
#include <fmt/format.h>
#include <functional>
#include <memory>

namespace Sentrel::ctl {
namespace {

using Documents = std::vector<MachineDocument>;
/// One of the three documents that each machine keeps at the broker.
struct Kind {
    const char* topic; ///< behind the machine's level
    std::string (*layout)(const Documents&, const FleetOptions&, const Palette&);
};

/// The documents of one machine or of all, in the order of the machines.
Documents documentsOf(const FleetOptions& options, const std::string& topic) {
    const std::string machine = options.machine.empty() ? "+" : topicPart("--machine", options.machine);
    const Fleet fleet = fleetOf(options);
    const std::string site = "orvanta/v1/" + fleet.site + "/";
    const auto broker = connected(fleet.broker, deadlineAfter(options.timeout));
    Documents documents = newestOfEach(broker->collect(fmt::format("{}{}/{}", site, machine, topic)), site);
    if (documents.empty() && !options.machine.empty()) {
        throw Failure(ExitCode::Failed, "nothing to show", options.machine,
                      fmt::format("the broker has nothing from this machine at site {}", fleet.site),
                      "'sentrelctl state' tells which machines there are");
    }
    return documents;
}

void show(Session& session, const FleetOptions& options, const Kind& kind) {
    const Documents documents = documentsOf(options, kind.topic);
    if (session.json == JsonMode::Off) {
        session.out.write(kind.layout(documents, options, session.palette));
        return;
    }
    Json json = Json::array();
    for (const MachineDocument& document : documents) {
        json.push_back(documentJson(document));
    }
    session.out.write(jsonText(json, session.json));
}

std::string results(const Documents& documents, const FleetOptions& /*options*/, const Palette& /*palette*/) {
    return resultsText(documents);
}

std::string states(const Documents& documents, const FleetOptions& /*options*/, const Palette& /*palette*/) {
    return statesText(documents);
}

std::string properties(const Documents& documents, const FleetOptions& options, const Palette& palette) {
    return options.machine.empty() ? propertiesTable(documents) : propertiesText(documents.front(), palette);
}

constexpr Kind kResults{"policy/result", results};
constexpr Kind kStates{"state", states};
constexpr Kind kProperties{"properties", properties};

template <const Kind& kind>
Work describeFleetShow(OptionSet& set, Session& session) {
    const auto options = std::make_shared<FleetOptions>();
    addFleetOptions(set, *options);
    return [options, &session] { show(session, *options, kind); };
}

} // namespace

Verbs fleetVerbs() {
    static constexpr std::array<Verb, 3> verbs{{
        {"policy", "results", "Shows which policy is in force on each machine of the site, and what was refused last.",
         "  sentrelctl policy results --machine desk-1", describeFleetShow<kResults>},
        {"properties", "show", "Shows the main properties of each machine of the site, or all of one machine.",
         "  sentrelctl properties show --machine desk-1", describeFleetShow<kProperties>},
        {"", "state", "Shows which machines of the site are connected to the broker.", "  sentrelctl state",
         describeFleetShow<kStates>},
    }};
    return verbs;
}

} // namespace Sentrel::ctl
