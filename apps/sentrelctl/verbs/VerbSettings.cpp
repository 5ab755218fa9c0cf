// sentrelctl settings init: the one step that makes the tables of the settings file, gives the file its form, and
// repairs one that is damaged.
//
// What must stay so:
// - A repair only shows what it would do until --yes says that it is meant.
// - What the hub last knew goes into broken tables alone, so that nothing comes back that was removed.
#include "apps/sentrelctl/Verbs.h"
#include "apps/sentrelctl/clients/HubClient.h"
#include "apps/sentrelctl/preferences/SettingsRepair.h"
#include "apps/sentrelctl/preferences/SettingsTables.h"
#include "base/Paths.h"
#include "base/PrintableText.h"

#include <array>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <memory>

namespace Sentrel::ctl {
namespace {

struct InitOptions {
    bool readableByAll = false;
    bool repair = false;
    bool yes = false;
};

SettingsReaders readersWanted(const InitOptions& options) {
    return options.readableByAll ? SettingsReaders::Everybody : SettingsReaders::DaemonAlone;
}

Json initJson(const std::string& path, const SettingsSetUp& done, SettingsReaders readers) {
    return Json{{"file", path},
                {"created", done.tables.created},
                {"present", done.tables.present},
                {"changes", done.changes},
                {"mode", fmt::format("{:04o}", modeFor(readers))},
                {"journal", journalFor(readers)}};
}

void settingsInit(Session& session, const InitOptions& options) {
    const std::string path = paths::settingsFile();
    const SettingsReaders readers = readersWanted(options);
    const SettingsSetUp done = setUpSettingsFile(path, readers);
    if (session.json != JsonMode::Off) {
        session.out.write(jsonText(initJson(path, done, readers), session.json));
        return;
    }
    std::vector<std::string> said;
    if (!done.tables.created.empty()) {
        said.push_back(fmt::format("made {}", fmt::join(done.tables.created, ", ")));
    }
    said.insert(said.end(), done.changes.begin(), done.changes.end());
    session.out.write(fmt::format("{} is ready; {}.\n", path,
                                  said.empty() ? "nothing was missing" : fmt::format("{}", fmt::join(said, "; "))));
}

std::string rowsText(std::size_t rows) {
    return rows == 1 ? "1 row" : fmt::format("{} rows", rows);
}

std::string savedText(const SavedTable& table) {
    std::string text = fmt::format("{:<19}{} can be read", table.name, rowsText(table.rows.size() - table.added));
    if (table.unreadable > 0) {
        text += fmt::format(", {} cannot", table.unreadable == 1 ? "a stretch of it" : "stretches of it");
    }
    if (table.added > 0) {
        text += fmt::format("; {} more of the hub's last settings", rowsText(table.added));
    }
    return text + "\n";
}

Json savedJson(const SavedTable& table) {
    return Json{{"table", table.name},
                {"rows", table.rows.size() - table.added},
                {"unreadable", table.unreadable},
                {"added", table.added}};
}

/// What a repair would do, and with @p aside has done.
void showRepair(Session& session, const std::string& path, const std::string& damage,
                const std::vector<SavedTable>& tables, const std::optional<std::string>& aside) {
    Json list = Json::array();
    std::string text = fmt::format("{} is damaged: {}\n", path, damage);
    for (const SavedTable& table : tables) {
        list.push_back(savedJson(table));
        text += savedText(table);
    }
    text += aside ? fmt::format("{} was made anew of these; the old file is {}.\nRestart sentreld: it serves what it "
                                "loaded from the old file.\n",
                                path, *aside)
                  : "Nothing was changed: 'sentrelctl settings init --repair --yes' makes the file anew of these, and "
                    "sets the old one aside.\n";
    session.out.write(session.json == JsonMode::Off ? text
                                                    : jsonText(Json{{"file", path},
                                                                    {"damage", damage},
                                                                    {"tables", list},
                                                                    {"aside", aside ? Json(*aside) : Json(nullptr)}},
                                                               session.json));
}

/// What the hub knows of the file from before; none, with a line that says so, when it knows nothing.
std::optional<settings::SettingsSnapshot> lastWholeSettings(Session& session) {
    constexpr double timeout = 5;
    try {
        return HubClient(paths::hubSocket(), timeout).lastWholeSettings();
    } catch (const HVB::HVBException& error) {
        session.err.write(fmt::format("sentrelctl: the hub's last whole settings are not at hand: {}.\n",
                                      text::printable(error.message())));
        return std::nullopt;
    }
}

void settingsRepair(Session& session, const InitOptions& options) {
    const std::string path = paths::settingsFile();
    becomeOwnerOfSettings(path);
    const std::optional<std::string> damage = damageInSettings(path);
    if (!damage) {
        session.out.write(session.json == JsonMode::Off
                              ? fmt::format("{} is whole; there is nothing to repair.\n", path)
                              : jsonText(Json{{"file", path}, {"damage", nullptr}}, session.json));
        return;
    }
    std::vector<SavedTable> tables = saveSettings(path);
    if (const auto known = lastWholeSettings(session)) {
        addKnownSettings(tables, *known);
    }
    showRepair(session, path, *damage, tables,
               options.yes ? std::optional(replaceSettings(path, tables, readersWanted(options))) : std::nullopt);
}

Work describeInit(OptionSet& set, Session& session) {
    auto options = std::make_shared<InitOptions>();
    set.addFlag("--readable-by-all", options->readableByAll,
                "Let every user read the file: mode 0644 with a rollback journal. A reader can then hold up changes.");
    auto repair = set.addFlag("--repair", options->repair,
                              "Make a damaged file anew of what can be saved. Alone it only shows what that would be.");
    set.addFlag("--yes", options->yes, "Do it").needs(repair);
    return [options, &session] { (options->repair ? settingsRepair : settingsInit)(session, *options); };
}

} // namespace

Verbs settingsVerbs() {
    static constexpr std::array<Verb, 1> verbs{{
        {"settings", "init",
         "Makes the tables that the settings file lacks, and the file when there is none, and makes the file the "
         "daemon's alone, with a write-ahead log. What is in it stays. Needs neither hub nor daemon.",
         "  sentrelctl settings init\n"
         "  sentrelctl settings init --repair",
         describeInit},
    }};
    return verbs;
}

} // namespace Sentrel::ctl
