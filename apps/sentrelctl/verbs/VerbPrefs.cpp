// sentrelctl prefs: the preferences that are no lists.
#include "apps/sentrelctl/Verbs.h"
#include "apps/sentrelctl/preferences/PreferenceClient.h"
#include "apps/sentrelctl/preferences/PreferenceLayout.h"
#include "apps/sentrelctl/preferences/PreferenceNames.h"
#include "apps/sentrelctl/preferences/StoredSettings.h"
#include "apps/sentrelctl/terminal/Failure.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <memory>
#include <unistd.h>

namespace Sentrel::ctl {
namespace {

struct PrefsOptions {
    std::string name;
    std::string value;
    bool all = false;
    bool isSure = false;
    double timeout = kDefaultTimeout;
};

void show(Session& session, const Snapshot& snapshot) {
    session.out.write(session.json == JsonMode::Off ? snapshotText(snapshot, session.palette)
                                                    : jsonText(snapshotJson(snapshot), session.json));
}

constexpr const char* kReading = "cannot read the preferences";

void prefsShow(Session& session, const PrefsOptions& options) {
    const Snapshot inForce = PreferenceClient(options.timeout).readAll();
    if (!options.all) {
        show(session, inForce);
        return;
    }
    const settings::SettingsSnapshot stored = freshSettings(options.timeout, kReading);
    session.out.write(session.json == JsonMode::Off ? settingsText(inForce, stored, session.palette)
                                                    : jsonText(settingsJson(inForce, stored), session.json));
}

/// The value in force, or the stored one of a preference that the daemon tells nobody.
void prefsGet(Session& session, const PrefsOptions& options) {
    const StoredPreference& wanted = storedPreference(options.name);
    const std::vector<Preference>& told = allPreferences();
    const auto preference =
        std::find_if(told.begin(), told.end(), [&](const Preference& each) { return each.name == wanted.name; });
    const std::string value =
        preference != told.end()
            ? valueText(PreferenceClient(options.timeout).readAll().values, *preference)
            : valueWord(wanted.isSwitch, numberOf(freshSettings(options.timeout, kReading), wanted));
    const Json json = wanted.isSwitch ? Json(value == "on") : Json(value);
    session.out.write(session.json == JsonMode::Off
                          ? value + "\n"
                          : jsonText(Json{Json::Field{std::string(wanted.jsonName), json}}, session.json));
}

void prefsSet(Session& session, const PrefsOptions& options) {
    const Preference& preference = settablePreference(options.name);
    STPreferences wanted;
    setValue(wanted, preference, options.value);
    PreferenceClient client(options.timeout);
    client.write(*preference.type, wanted);
    const STPreferences now = client.read(*preference.type).values;
    const std::string value = valueText(now, preference);
    session.out.write(session.json == JsonMode::Off
                          ? rowText(preference.name, value, session.palette)
                          : jsonText(Json{Json::Field{preference.jsonName, valueJson(now, preference)}}, session.json));
    if (value != valueText(wanted, preference)) {
        throw Failure(ExitCode::Failed, "not what was asked for", options.name, fmt::format("it is {} now", value),
                      "Somebody else may have set it at the same time; try again");
    }
    needStored(session, options.timeout, options.name, shortfallOf(preference, wanted),
               [&] { return valueText(client.read(*preference.type).values, preference) == value; });
}

void prefsReset(Session& session, const PrefsOptions& options) {
    // A script says what it means. A person may have meant something smaller.
    if (!options.isSure && ::isatty(session.inputFd) == 1) {
        throw Failure(ExitCode::BadUsage, "nothing was reset", "",
                      "it gives eight preferences their first values and empties the allow/block list",
                      "Say that it is meant with --yes");
    }
    PreferenceClient client(options.timeout);
    client.reset();
    const Snapshot now = client.readAll();
    show(session, now);
    needStored(session, options.timeout, "the preferences", shortfallOfAll(now),
               [&] { return snapshotJson(client.readAll()) == snapshotJson(now); });
}

Work describePrefsShow(OptionSet& set, Session& session) {
    const auto options = std::make_shared<PrefsOptions>();
    set.addFlag("-a,--all", options->all, "Every setting, each with what is in force and what is stored");
    set.addTimeout(options->timeout);
    return [options, &session] { prefsShow(session, *options); };
}

Work describePrefsGet(OptionSet& set, Session& session) {
    const auto options = std::make_shared<PrefsOptions>();
    set.add("name", options->name, "Which one").required().shownAs("NAME");
    set.addTimeout(options->timeout);
    return [options, &session] { prefsGet(session, *options); };
}

Work describePrefsSet(OptionSet& set, Session& session) {
    const auto options = std::make_shared<PrefsOptions>();
    set.add("name", options->name, "Which one").required().shownAs("NAME");
    set.add("value", options->value, "What it is to be").required().shownAs("VALUE");
    set.addTimeout(options->timeout);
    return [options, &session] { prefsSet(session, *options); };
}

Work describeReset(OptionSet& set, Session& session) {
    const auto options = std::make_shared<PrefsOptions>();
    set.addFlag("-y,--yes", options->isSure, "It is meant; needed when standard input is a terminal");
    set.addTimeout(options->timeout);
    return [options, &session] { prefsReset(session, *options); };
}

} // namespace

Verbs preferenceVerbs() {
    static constexpr std::array<Verb, 4> verbs{{
        {"prefs", "show", "Shows all preferences that are in force.",
         "  sentrelctl prefs show\n  sentrelctl prefs show --all\n  sentrelctl prefs show --json=short | jq .red_sites",
         describePrefsShow},
        {"prefs", "get",
         "Shows the value of one preference, and nothing else. Those behind allow-over-block are told by no daemon: "
         "their stored value is shown.",
         "  sentrelctl prefs get red-sites\n  sentrelctl prefs get block-phishing", describePrefsGet},
        {"prefs", "set",
         "Sets one preference and shows its new value.\n"
         "  protection, safe-search, category-blocking                    on, off\n"
         "  red-sites, yellow-sites, unrated-sites, unverified-sites      allow, warn, block",
         "  sentrelctl prefs set red-sites warn", describePrefsSet},
        {"prefs", "reset",
         "Gives the preferences their first values and empties the allow/block list. The categories "
         "and the action for unverified sites stay.",
         "  sentrelctl prefs reset --yes", describeReset},
    }};
    return verbs;
}

} // namespace Sentrel::ctl
