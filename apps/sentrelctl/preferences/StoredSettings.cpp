// What is in force and what is stored part company when a write fails: the daemon answers some changes as done although
// only its memory has them, and the next start undoes those. So every change is compared with the file.
//
// What must stay so:
// - The file is asked for through the hub, by any user. Only the daemon's user may open it, and to read it would be to
//   lock it.
// - A list that is changing is served as it last was whole. What is compared is one that is not changing any more. The
//   single values are served as they are, and never wait for a list.
// - The file may lack a change because somebody else has made another one since. That is told only of a change that is
//   still in force.
// - A hub that cannot tell is no failed change, and neither is a list that others keep changing. A line on the error
//   output says what is not known.
#include "apps/sentrelctl/preferences/StoredSettings.h"

#include "apps/sentrelctl/clients/HubClient.h"
#include "apps/sentrelctl/preferences/PreferenceLayout.h"
#include "apps/sentrelctl/preferences/PreferenceNames.h"
#include "base/Paths.h"
#include "base/PrintableText.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fmt/format.h>

namespace Sentrel::ctl {
namespace {

using settings::SettingsSnapshot;
using text::printable;
using text::validUtf8;

constexpr const char* kNotStored = "in force until the next start, not stored";
constexpr const char* kNoRow = "not set";
constexpr const char* kNoNumber = "no number";
constexpr const char* kNotTold = "not told";

const Preference* toldPreference(const StoredPreference& stored) {
    const std::vector<Preference>& all = allPreferences();
    const auto found =
        std::find_if(all.begin(), all.end(), [&](const Preference& each) { return each.name == stored.name; });
    return found != all.end() ? &*found : nullptr;
}

std::optional<std::int32_t> rowOf(const SettingsSnapshot& stored, const StoredPreference& preference) {
    const auto found = stored.numbers.find(std::string(preference.key));
    return found != stored.numbers.end() ? std::optional(found->second) : std::nullopt;
}

/// Whether there is a row and its value is no number, so that what the daemon makes of it is not known.
bool isUnreadable(const SettingsSnapshot& stored, const StoredPreference& preference) {
    return std::find(stored.unreadable.begin(), stored.unreadable.end(), preference.key) != stored.unreadable.end();
}

std::string storedText(const SettingsSnapshot& stored, const StoredPreference& preference) {
    const std::optional<std::int32_t> row = rowOf(stored, preference);
    return row ? valueWord(preference.isSwitch, *row) : isUnreadable(stored, preference) ? kNoNumber : kNoRow;
}

Json numberJson(std::optional<std::int32_t> number, const StoredPreference& preference) {
    if (!number) {
        return nullptr;
    }
    return preference.isSwitch ? Json(*number != 0) : Json(valueWord(false, *number));
}

std::string bothText(std::string_view name, const std::string& inForce, const std::string& stored,
                     const Palette& palette) {
    return fmt::format("{}{:<25}{} {:<33} {}\n", palette.strong, name, palette.plain, inForce, stored);
}

UrlList listOf(const SettingsSnapshot& stored) {
    UrlList list;
    list.reserve(stored.allowBlock.size());
    for (const settings::ListEntry& entry : stored.allowBlock) {
        list.push_back({entry.name, entry.value});
    }
    return list;
}

std::vector<std::string> categoriesOf(const SettingsSnapshot& stored) {
    std::vector<std::string> names;
    for (const settings::ListEntry& entry : stored.categories) {
        names.push_back(entry.name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

Json validJson(const std::vector<std::string>& names) {
    Json json = Json::array();
    for (const std::string& name : names) {
        json.push_back(validUtf8(name));
    }
    return json;
}

Json entriesJson(const UrlList& list) {
    Json json = Json::array();
    for (const ListEntry& entry : list) {
        json.push_back(entryJson(entry));
    }
    return json;
}

/// What a list of names lacks or has too much, in words; empty when nothing. None when @p isChanging and it differs.
template <class List, class Shown>
std::optional<std::string> listShortfall(List wanted, List stored, bool isChanging, Shown shown) {
    std::sort(wanted.begin(), wanted.end());
    std::sort(stored.begin(), stored.end());
    if (isChanging && wanted != stored) {
        return std::nullopt;
    }
    List missing;
    std::set_difference(wanted.begin(), wanted.end(), stored.begin(), stored.end(), std::back_inserter(missing));
    if (!missing.empty()) {
        return fmt::format("{} of {} are missing, the first is {}", missing.size(), wanted.size(),
                           printable(shown(missing.front())));
    }
    return wanted.size() == stored.size() ? std::string()
                                          : fmt::format("it has {} in place of {}", stored.size(), wanted.size());
}

Failure notStoredFailure(const std::string& where, const std::string& lacking, bool isInForce) {
    return isInForce ? Failure(ExitCode::Failed, kNotStored, where, lacking,
                               "'sentrelctl doctor' looks at the settings file; then make the change again, which "
                               "needs another value in between")
                     : Failure(ExitCode::Failed, "not what was asked for", where, "it is in force no more",
                               "Somebody else may have changed it at the same time; try again");
}

} // namespace

const std::vector<StoredPreference>& storedPreferences() {
    constexpr std::int32_t allow = 1;
    constexpr std::int32_t warn = 2;
    constexpr std::int32_t block = 3;
    static const std::vector<StoredPreference> all{
        {"protection", "protection", "Enabled", 1, true},
        {"safe-search", "safe_search", "SSOn", 0, true},
        {"red-sites", "red_sites", "RedSiteAction", block, false},
        {"yellow-sites", "yellow_sites", "YellowSiteAction", warn, false},
        {"unrated-sites", "unrated_sites", "UnverifiedSiteAction", allow, false},
        {"unverified-sites", "unverified_sites", "GenPolicyUnverifiedAction", allow, false},
        {"category-blocking", "category_blocking", "CAT_Enabled", 1, true},
        {"allow-over-block", "allow_over_block", "ALLOW_OVER_Block", 0, true},
        {"block-phishing", "block_phishing", "GenPolicyBlockPhishingAction", 1, true},
        {"block-unreachable", "block_unreachable", "GenPolicyRPXUnReachableAction", 0, true},
        {"block-uncategorised", "block_uncategorised", "UNCAT_Block", 0, true},
        {"log-green-sites", "log_green_sites", "GenPolicyLogGreenSiteAction", 0, true},
        {"log-allowed-sites", "log_allowed_sites", "GenPolicyLogAllowSiteAction", 0, true},
    };
    return all;
}

const StoredPreference& storedPreference(const std::string& name) {
    std::vector<std::string_view> names;
    for (const StoredPreference& preference : storedPreferences()) {
        if (preference.name == name) {
            return preference;
        }
        names.push_back(preference.name);
    }
    throw unknownWord(name, "not a preference", names);
}

std::int32_t numberOf(const SettingsSnapshot& stored, const StoredPreference& preference) {
    return rowOf(stored, preference).value_or(preference.firstValue);
}

std::string settingsText(const Snapshot& inForce, const SettingsSnapshot& stored, const Palette& palette) {
    std::string text = bothText("", "in force", "stored", palette);
    for (const StoredPreference& preference : storedPreferences()) {
        const Preference* const told = toldPreference(preference);
        text += bothText(preference.name, told != nullptr ? valueText(inForce.values, *told) : kNotTold,
                         storedText(stored, preference), palette);
    }
    text += bothText("list", countText(inForce.list), countText(listOf(stored)), palette);
    text += bothText("categories", std::to_string(inForce.values.m_categoryBlockDetails.size()),
                     std::to_string(stored.categories.size()), palette);
    return text + bothText("private-ranges", kNotTold, std::to_string(stored.privateRanges.size()), palette);
}

Json settingsJson(const Snapshot& inForce, const SettingsSnapshot& stored) {
    Json json = Json::object();
    for (const StoredPreference& preference : storedPreferences()) {
        const Preference* const told = toldPreference(preference);
        json[std::string(preference.jsonName)] =
            Json{{"in_force", told != nullptr ? valueJson(inForce.values, *told) : Json(nullptr)},
                 {"stored", numberJson(rowOf(stored, preference), preference)}};
        if (isUnreadable(stored, preference)) {
            json[std::string(preference.jsonName)]["error"] = kNoNumber;
        }
    }
    json["list"] = Json{{"in_force", entriesJson(inForce.list)}, {"stored", entriesJson(listOf(stored))}};
    json["categories"] =
        Json{{"in_force", validJson(categoryNames(inForce.values))}, {"stored", validJson(categoriesOf(stored))}};
    json["private_ranges"] = Json{{"in_force", nullptr}, {"stored", validJson(stored.privateRanges)}};
    return json;
}

SettingsSnapshot freshSettings(double timeout, const char* what) {
    try {
        return HubClient(paths::hubSocket(), timeout).settings(true);
    } catch (const HVB::HVBException& error) {
        throw hubFailure(error, what);
    }
}

void needStored(Session& session, double timeout, const std::string& where, const Shortfall& shortfall,
                const std::function<bool()>& isInForce) {
    try {
        const auto deadline = deadlineAfter(timeout);
        HubClient hub(paths::hubSocket(), timeout);
        for (;;) {
            const SettingsSnapshot stored = hub.settings(true);
            if (stored.state == settings::SnapshotState::None) {
                throw HVB::HVBException(-EIO, stored.reason); // the file may have it all the same
            }
            const std::optional<std::string> lacking = shortfall(stored);
            if (lacking && !lacking->empty()) {
                throw notStoredFailure(where, *lacking, isInForce());
            }
            if (lacking) {
                return;
            }
            if (std::chrono::steady_clock::now() >= deadline) {
                throw HVB::HVBException(-ETIMEDOUT, "a list in the settings file is still changing");
            }
        }
    } catch (const HVB::HVBException& error) {
        session.err.write(
            fmt::format("sentrelctl: whether it is stored cannot be seen: {}.\n", printable(error.message())));
    }
}

Shortfall shortfallOf(const Preference& preference, const STPreferences& wanted) {
    const std::string name(preference.name); // not in the call: GCC 13 and later take what is returned for a part of it
    const StoredPreference& stored = storedPreference(name);
    const std::string value = valueText(wanted, preference);
    return [&stored, value](const SettingsSnapshot& file) {
        if (isUnreadable(file, stored)) {
            return std::string("the row in the settings file is no number");
        }
        const std::string there = valueWord(stored.isSwitch, numberOf(file, stored));
        return there == value ? std::string() : fmt::format("the settings file has {}", there);
    };
}

Shortfall shortfallOfAll(const Snapshot& wanted) {
    return [wanted](const SettingsSnapshot& file) {
        for (const Preference& preference : allPreferences()) {
            const std::optional<std::string> lacking = shortfallOf(preference, wanted.values)(file);
            if (!lacking->empty()) { // a single value is never changing
                return std::optional(fmt::format("{}: {}", preference.name, *lacking));
            }
        }
        return shortfallOfList(wanted.list)(file);
    };
}

Shortfall shortfallOfList(const UrlList& wanted) {
    return [wanted](const SettingsSnapshot& file) {
        return listShortfall(wanted, listOf(file), file.isChanging, [](const ListEntry& entry) { return entry.url; });
    };
}

Shortfall shortfallOfCategories(const CategoryBlockDetails& wanted) {
    std::vector<std::string> names;
    for (const auto& [name, action] : wanted) {
        names.push_back(name);
    }
    return [names](const SettingsSnapshot& file) {
        return listShortfall(names, categoriesOf(file), file.isChanging, [](const std::string& name) { return name; });
    };
}

} // namespace Sentrel::ctl
