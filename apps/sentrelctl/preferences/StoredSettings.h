// What is stored, beside what is in force: the settings file as the hub tells it.
#pragma once

#include "apps/sentrelctl/Session.h"
#include "apps/sentrelctl/preferences/PreferenceClient.h"
#include "apps/sentrelctl/preferences/PreferenceNames.h"
#include "platform/settings/SettingsSnapshot.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Sentrel::ctl {

/// A setting of the file that has a meaning and is one number.
struct StoredPreference {
    std::string_view name;     ///< as it is typed and shown; that of a Preference where there is one
    std::string_view jsonName; ///< its field in JSON
    std::string_view key;      ///< of its row
    std::int32_t firstValue;   ///< in force while there is no row
    bool isSwitch;             ///< on or off; else allow, warn or block
};

/// All of them, in the order in which they are shown.
const std::vector<StoredPreference>& storedPreferences();

/// The one that is called so. @throws Failure (bad usage) that says which there are.
const StoredPreference& storedPreference(const std::string& name);

/// The number that counts when the daemon starts: the row's, or the first value without one.
std::int32_t numberOf(const settings::SettingsSnapshot& stored, const StoredPreference& preference);

/// Every setting, each with what is in force and what is stored. The daemon does not tell all that it has in force.
std::string settingsText(const Snapshot& inForce, const settings::SettingsSnapshot& stored, const Palette& palette);
Json settingsJson(const Snapshot& inForce, const settings::SettingsSnapshot& stored);

/// The settings file, read after this was called. @throws Failure with @p what when the hub cannot tell.
settings::SettingsSnapshot freshSettings(double timeout, const char* what);

/// What the file lacks of a change; empty when it has all of it. None when the lists cannot tell yet: one is changing,
/// and they are served as they were before.
using Shortfall = std::function<std::optional<std::string>(const settings::SettingsSnapshot&)>;

/// Compares a change that is in force with the file, waiting for a list that is changing to become whole. When the hub
/// cannot tell what is stored, or a list is still changing at the time limit, a line on the error output says so.
/// @param isInForce whether the change still is; asked only when the file lacks it, which may be somebody else's doing.
/// @throws Failure when it is not stored, or not in force any more.
void needStored(Session& session, double timeout, const std::string& where, const Shortfall& shortfall,
                const std::function<bool()>& isInForce);

/// The shortfalls of each kind of change. A value that needs no row, because it is the first one, may have none.
Shortfall shortfallOf(const Preference& preference, const STPreferences& wanted);
/// Of every preference that can be set, and the list.
Shortfall shortfallOfAll(const Snapshot& wanted);
Shortfall shortfallOfList(const UrlList& wanted);
Shortfall shortfallOfCategories(const CategoryBlockDetails& wanted);

} // namespace Sentrel::ctl
