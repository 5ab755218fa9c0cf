// sentrelctl settings init: the one step that makes the tables of the settings file.
#include "apps/sentrelctl/Verbs.h"
#include "apps/sentrelctl/preferences/SettingsTables.h"
#include "base/Paths.h"

#include <array>
#include <fmt/format.h>
#include <fmt/ranges.h>

namespace Sentrel::ctl {
namespace {

void settingsInit(Session& session) {
    const std::string path = paths::settingsFile();
    const SettingsTables tables = makeSettingsTables(path);
    if (session.json != JsonMode::Off) {
        session.out.write(
            jsonText(Json{{"file", path}, {"created", tables.created}, {"present", tables.present}}, session.json));
        return;
    }
    session.out.write(tables.created.empty()
                          ? fmt::format("{} is ready; nothing was missing.\n", path)
                          : fmt::format("{} is ready; made {}.\n", path, fmt::join(tables.created, ", ")));
}

Work describeInit(OptionSet& /*set*/, Session& session) {
    return [&session] { settingsInit(session); };
}

} // namespace

Verbs settingsVerbs() {
    static constexpr std::array<Verb, 1> verbs{{
        {"settings", "init",
         "Makes the tables that the settings file lacks, and the file when there is none. What is in "
         "it stays. Needs neither hub nor daemon.",
         "  sentrelctl settings init", describeInit},
    }};
    return verbs;
}

} // namespace Sentrel::ctl
