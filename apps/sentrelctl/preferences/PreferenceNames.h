// What a person calls the preferences, their values and the daemon's answers to them.
#pragma once

#include "apps/sentrelctl/terminal/Failure.h"
#include "apps/sentrelctl/terminal/Json.h"
#include "apps/sentrelctl/terminal/Output.h"
#include "hub/STPreferences.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Sentrel::ctl {

/// A preference that is not a list. Either its switch or its action is set.
struct Preference {
    std::string_view name;                   ///< as it is typed and shown
    std::string_view jsonName;               ///< its field in JSON
    std::optional<STPrefType> type;          ///< none: no command sets it
    bool STPreferences::*flag;               ///< on or off
    std::int32_t STPreferences::*siteAction; ///< allow, warn or block
};

/// All of them, in the order in which they are shown.
const std::vector<Preference>& allPreferences();

/// The preference that can be set under @p name.
/// @throws Failure (bad usage) that says which there are, or why this one has no command.
const Preference& settablePreference(const std::string& name);

/// Gives @p preference in @p snapshot the value that @p text names.
/// @throws Failure (bad usage) that says which values there are.
void setValue(STPreferences& snapshot, const Preference& preference, const std::string& text);

/// The value in words. An action without a word is its number.
std::string valueText(const STPreferences& snapshot, const Preference& preference);

/// A number of the settings file in words: on or off, or an action, which without a word is the number.
std::string valueWord(bool isSwitch, std::int32_t value);

/// A switch as true or false, an action as its word.
Json valueJson(const STPreferences& snapshot, const Preference& preference);

/// The failure (bad usage) for a @p word that is none of @p candidates, with the nearest one. @param what it is not.
Failure unknownWord(std::string_view word, const char* what, const std::vector<std::string_view>& candidates);

/// "ST_ERROR_DATABASE (180003)", or the number alone when it has no name.
std::string errorName(int error);

/// A refusal by the daemon, with the next step that fits it.
Failure refusal(int error, std::string what);

} // namespace Sentrel::ctl
