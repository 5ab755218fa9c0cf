// One table says what the preferences are called, in what order they are shown, which command sets each and where its
// value is in a snapshot. Verbs and JSON take it from there, so a new preference is one more row here.
//
// What must stay so:
// - Names, JSON names and words for values are an interface that scripts use. They are added to, never changed.
// - A row has either a switch or an action. A row without a command is shown and cannot be set: only a policy sets it.
// - An action that has no word is shown as its number. Other clients and policies may have stored it.
// - A misspelt word gets the nearest candidate as advice. The word comes from the command line and may be very long, so
//   an error repeats only its beginning.
#include "apps/sentrelctl/preferences/PreferenceNames.h"

#include "apps/sentrelctl/terminal/Nearest.h"
#include "base/Paths.h"
#include "base/PrintableText.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <utility>

namespace Sentrel::ctl {
namespace {

using Action = std::pair<std::string_view, std::int32_t>;
constexpr std::array<Action, 3> kActions{{{"allow", 1}, {"warn", 2}, {"block", 3}}};
/// A switch takes each of these words; the first pair is how it is shown.
constexpr std::array<std::pair<std::string_view, std::string_view>, 4> kSwitchWords{
    {{"on", "off"}, {"true", "false"}, {"yes", "no"}, {"1", "0"}}};

constexpr std::size_t kMaxShownWord = 64; // bytes of what was typed that an error repeats

std::vector<std::string_view> settableNames() {
    std::vector<std::string_view> names;
    for (const Preference& preference : allPreferences()) {
        if (preference.type) {
            names.push_back(preference.name);
        }
    }
    return names;
}

bool switchValue(const std::string& text, const Preference& preference) {
    for (const auto& [on, off] : kSwitchWords) {
        if (text == on || text == off) {
            return text == on;
        }
    }
    throw unknownWord(text, fmt::format("not a value of {}", preference.name).c_str(),
                      {kSwitchWords.front().first, kSwitchWords.front().second});
}

std::int32_t actionValue(const std::string& text, const Preference& preference) {
    std::vector<std::string_view> words;
    for (const auto& [word, code] : kActions) {
        if (text == word || text == std::to_string(code)) {
            return code;
        }
        words.push_back(word);
    }
    throw unknownWord(text, fmt::format("not a value of {}", preference.name).c_str(), words);
}

std::string nextStepOf(int error) {
    switch (error) {
    case ST_ERROR_DATABASE:
        return fmt::format("Make its tables with 'sentrelctl settings init', or let the daemon's user write {}",
                           paths::settingsFile());
    case ST_ERROR_INVALID_PREFERENCE:
        return "The daemon does not know this preference: use a sentrelctl of its version";
    default:
        return fmt::format("The daemon's trace log {} says more, if tracing is on", paths::traceLog());
    }
}

const char* meaningOf(int error) {
    switch (error) {
    case ST_ERROR_GENERIC:
        return "the daemon met an unexpected error";
    case ST_ERROR_DATABASE:
        return "the daemon cannot write the settings file";
    case ST_ERROR_INVALID_PREFERENCE:
        return "the daemon did not take it for a preference";
    case ST_ERROR_PREFERENCES_EXCEPTION:
        return "a setter of the daemon failed";
    default:
        return "the daemon refused";
    }
}

} // namespace

const std::vector<Preference>& allPreferences() {
    using P = STPreferences;
    static const std::vector<Preference> all{
        {"protection", "protection", ST_ENABLE, &P::m_bEnable, nullptr},
        {"safe-search", "safe_search", ST_SAFE_SEARCH, &P::m_bSafeSearch, nullptr},
        {"red-sites", "red_sites", ST_RED_SITE_ACTION, nullptr, &P::m_redSiteAction},
        {"yellow-sites", "yellow_sites", ST_YELLOW_SITE_ACTION, nullptr, &P::m_yellowSiteAction},
        {"unrated-sites", "unrated_sites", ST_UNRATED_SITE_ACTION, nullptr, &P::m_unratedSiteAction},
        {"unverified-sites", "unverified_sites", ST_UNVERIFIED_ACTION, nullptr, &P::m_unverifiedAction},
        {"category-blocking", "category_blocking", ST_CATEGORY_BLOCKING, &P::m_bCategoryBlocking, nullptr},
        {"allow-over-block", "allow_over_block", std::nullopt, &P::m_bAllowOverBlock, nullptr},
    };
    return all;
}

const Preference& settablePreference(const std::string& name) {
    for (const Preference& preference : allPreferences()) {
        if (preference.name != name) {
            continue;
        }
        if (!preference.type) {
            throw Failure(ExitCode::BadUsage, "cannot be set", name, "only the management policy sets it",
                          "'sentrelctl prefs show' tells its value");
        }
        return preference;
    }
    throw unknownWord(name, "not a preference", settableNames());
}

void setValue(STPreferences& snapshot, const Preference& preference, const std::string& text) {
    if (preference.flag != nullptr) {
        snapshot.*preference.flag = switchValue(text, preference);
    } else {
        snapshot.*preference.siteAction = actionValue(text, preference);
    }
}

std::string valueText(const STPreferences& snapshot, const Preference& preference) {
    return preference.flag != nullptr ? valueWord(true, snapshot.*preference.flag ? 1 : 0)
                                      : valueWord(false, snapshot.*preference.siteAction);
}

std::string valueWord(bool isSwitch, std::int32_t value) {
    if (isSwitch) {
        const auto& [on, off] = kSwitchWords.front();
        return std::string(value != 0 ? on : off);
    }
    const auto* const action =
        std::find_if(kActions.begin(), kActions.end(), [value](const Action& each) { return each.second == value; });
    return action == kActions.end() ? std::to_string(value) : std::string(action->first);
}

Json valueJson(const STPreferences& snapshot, const Preference& preference) {
    return preference.flag != nullptr ? Json(snapshot.*preference.flag) : Json(valueText(snapshot, preference));
}

Failure unknownWord(std::string_view word, const char* what, const std::vector<std::string_view>& candidates) {
    const std::optional<std::string_view> near = nearest(word, candidates);
    return {ExitCode::BadUsage, "bad usage", fmt::format("'{}'", text::shortened(text::validUtf8(word), kMaxShownWord)),
            fmt::format("{}: it is one of {}", what, fmt::join(candidates, ", ")),
            near ? fmt::format("Perhaps '{}' is meant", *near) : "See 'sentrelctl prefs set --help'"};
}

std::string errorName(int error) {
    constexpr std::array<std::pair<STError, const char*>, 5> names{{
        {ST_ERROR_NONE, "ST_ERROR_NONE"},
        {ST_ERROR_GENERIC, "ST_ERROR_GENERIC"},
        {ST_ERROR_DATABASE, "ST_ERROR_DATABASE"},
        {ST_ERROR_INVALID_PREFERENCE, "ST_ERROR_INVALID_PREFERENCE"},
        {ST_ERROR_PREFERENCES_EXCEPTION, "ST_ERROR_PREFERENCES_EXCEPTION"},
    }};
    for (const auto& [code, name] : names) {
        if (code == error) {
            return fmt::format("{} ({})", name, error);
        }
    }
    return std::to_string(error);
}

Failure refusal(int error, std::string what) {
    return {ExitCode::Failed, std::move(what), meaningOf(error), errorName(error), nextStepOf(error)};
}

} // namespace Sentrel::ctl
