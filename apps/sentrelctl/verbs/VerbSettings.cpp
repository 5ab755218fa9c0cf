// sentrelctl settings init: the one step that makes the tables of the settings file.
#include "apps/sentrelctl/Session.h"
#include "apps/sentrelctl/preferences/SettingsTables.h"
#include "base/Paths.h"

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

} // namespace

void registerSettings(CLI::App& app, Session& session) {
    CLI::App& verb =
        addVerb(verbGroup(app, "settings", "The daemon's settings file"), "init",
                "Makes the tables that the settings file lacks, and the file when there is none. What is in "
                "it stays. Needs neither hub nor daemon.",
                "  sentrelctl settings init");
    verb.callback([&session] { session.chosen = [&session] { settingsInit(session); }; });
}

} // namespace Sentrel::ctl
