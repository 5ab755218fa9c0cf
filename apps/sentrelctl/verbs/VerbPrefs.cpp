// sentrelctl prefs: the preferences that are no lists.
#include "apps/sentrelctl/Verbs.h"
#include "apps/sentrelctl/preferences/PreferenceClient.h"
#include "apps/sentrelctl/preferences/PreferenceLayout.h"
#include "apps/sentrelctl/preferences/PreferenceNames.h"
#include "apps/sentrelctl/terminal/Failure.h"

#include <array>
#include <fmt/format.h>
#include <memory>
#include <unistd.h>

namespace Sentrel::ctl {
namespace {

struct PrefsOptions {
    std::string name;
    std::string value;
    bool isSure = false;
    double timeout = kDefaultTimeout;
};

void show(Session& session, const Snapshot& snapshot) {
    session.out.write(session.json == JsonMode::Off ? snapshotText(snapshot, session.palette)
                                                    : jsonText(snapshotJson(snapshot), session.json));
}

void prefsShow(Session& session, const PrefsOptions& options) {
    show(session, PreferenceClient(options.timeout).readAll());
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
    show(session, client.readAll());
}

Work describePrefsShow(OptionSet& set, Session& session) {
    const auto options = std::make_shared<PrefsOptions>();
    set.addTimeout(options->timeout);
    return [options, &session] { prefsShow(session, *options); };
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
    static constexpr std::array<Verb, 3> verbs{{
        {"prefs", "show", "Shows all preferences that are in force.",
         "  sentrelctl prefs show\n  sentrelctl prefs show --json=short | jq .red_sites", describePrefsShow},
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
