// The doctor's look at the rows of the settings file: whether the daemon reads what is in them.
//
// The daemon takes each row by itself and never complains: of a number that has more than four bytes it takes the first
// value in its place, and an action that is none is in force as it is. So a row that somebody wrote by hand or with
// another program may leave a protection off without a word.
//
// What must stay so:
// - What a value may be comes from the table by which preferences are shown, so that the two agree.
// - The file is read, and nothing in it is mended: what was meant by a row is not known here.
#include "apps/sentrelctl/doctor/DoctorSettings.h"
#include "apps/sentrelctl/preferences/StoredSettings.h"
#include "base/Database.h"
#include "base/Paths.h"
#include "base/PrintableText.h"
#include "platform/settings/SettingsKeys.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <fmt/format.h>
#include <fmt/ranges.h>

namespace Sentrel::ctl {
namespace {

constexpr std::size_t kShownProblems = 3;
constexpr std::size_t kShownKeyBytes = 40;

/// The least and the greatest value of a number.
struct Range {
    std::int32_t least;
    std::int32_t greatest;
};

bool isOneOf(std::string_view key, std::initializer_list<const char*> keys) {
    return std::find(keys.begin(), keys.end(), key) != keys.end();
}

bool isText(std::string_view key) {
    return isOneOf(key, {settings::kProxyHostKey, settings::kProxyUserKey, settings::kProxyPasswordKey});
}

bool isKnown(std::string_view key) {
    return isText(key) ||
           isOneOf(key, {settings::kProxyPortKey, settings::kProxyTypeKey, settings::kProxyAuthenticationKey}) ||
           std::find(settings::kNumberKeys.begin(), settings::kNumberKeys.end(), key) != settings::kNumberKeys.end();
}

/// What a number may be; none when any will do.
std::optional<Range> rangeOf(std::string_view key) {
    constexpr Range onOrOff{0, 1};
    constexpr Range action{1, 3};
    constexpr Range port{0, 65535};
    const std::vector<StoredPreference>& all = storedPreferences();
    const auto found =
        std::find_if(all.begin(), all.end(), [key](const StoredPreference& each) { return each.key == key; });
    if (found != all.end()) {
        return found->isSwitch ? onOrOff : action;
    }
    if (isOneOf(key, {"Enabled_Debug_Log", settings::kProxyAuthenticationKey})) {
        return onOrOff;
    }
    return key == settings::kProxyPortKey ? std::optional(port) : std::nullopt;
}

/// What is wrong with the value of a number's row; empty when nothing is.
std::string problemOf(std::string_view key, std::string_view type, std::string_view value) {
    std::int32_t number = 0;
    if (type != "blob") {
        return fmt::format("{} is of the type {} and no blob", key, type);
    }
    if (value.size() != sizeof number) {
        return fmt::format("{} has a size of {} and not of {} bytes", key, value.size(), sizeof number);
    }
    std::memcpy(&number, value.data(), sizeof number);
    const std::optional<Range> range = rangeOf(key);
    if (range && (number < range->least || number > range->greatest)) {
        return fmt::format("{} is {} and not from {} to {}", key, number, range->least, range->greatest);
    }
    return {};
}

/// What is wrong with the rows, in the file's order.
struct RowProblems {
    std::vector<std::string> values;
    std::vector<std::string> keys; ///< that nothing reads
};

void readSingleSettings(sqlite3& database, RowProblems& problems) {
    Statement rows(database, "select cast(name as blob), typeof(value), value from vxsetting");
    while (rows.step()) {
        const std::string key(rows.bytes(0));
        const std::string_view name = std::string_view(key).substr(0, key.find('\0'));
        if (key.size() != name.size() + 1 || !isKnown(name)) {
            problems.keys.push_back(text::shortened(key, kShownKeyBytes));
        } else if (!isText(name)) {
            const std::string type(rows.bytes(1));
            if (std::string problem = problemOf(name, type, rows.bytes(2)); !problem.empty()) {
                problems.values.push_back(std::move(problem));
            }
        }
    }
}

void readList(sqlite3& database, const char* table, const char* wrong, const char* what, RowProblems& problems) {
    const std::int64_t count =
        queryInteger(database, fmt::format("select count(*) from {} where {}", table, wrong).c_str());
    if (count > 0) {
        problems.values.push_back(fmt::format("{} {} of {} {} {}", count, count == 1 ? "row" : "rows", table,
                                              count == 1 ? "has" : "have", what));
    }
}

std::string firstOf(const std::vector<std::string>& problems) {
    const std::size_t shown = std::min(problems.size(), kShownProblems);
    std::string text =
        fmt::format("{}", fmt::join(problems.begin(), problems.begin() + static_cast<std::ptrdiff_t>(shown), "; "));
    return problems.size() > shown ? fmt::format("{}; and {} more", text, problems.size() - shown) : text;
}

RowProblems problemsIn(const std::string& path, double timeout) {
    RowProblems problems;
    const DatabasePtr database = openDatabaseReadOnly(path);
    setLockWait(*database,
                std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::duration<double>(timeout)));
    readSingleSettings(*database, problems);
    readList(*database, "catblockinginfo", "typeof(value)<>'blob' or length(value)<>4", "no number of four bytes",
             problems);
    readList(*database, "allowblocksettings",
             "typeof(value)<>'integer' or value not between -2147483648 and 2147483647", "no number of 32 bits",
             problems);
    return problems;
}

} // namespace

Diagnosis settingsValues(double timeout) {
    const std::string path = paths::settingsFile();
    needSettingsTables(path);
    try {
        const RowProblems problems = problemsIn(path, timeout);
        if (!problems.values.empty()) {
            return failed("settings-value", fmt::format("{}: {}", path, firstOf(problems.values)),
                          "Set each to another value and back with 'sentrelctl prefs set', a list as a whole with "
                          "'sentrelctl list' or 'sentrelctl categories'; on a managed machine push its policy again");
        }
        if (!problems.keys.empty()) {
            return warning("settings-key",
                           fmt::format("{} has rows that nothing reads: {}", path, firstOf(problems.keys)),
                           "A key ends with a NUL byte, and docs/formats.md has all of them: make the setting with "
                           "'sentrelctl prefs set'");
        }
    } catch (const DatabaseError& error) {
        throw CannotSee(fmt::format("the rows cannot be read: {}", error.what()));
    }
    return healthy("every setting is one that the daemon reads");
}

} // namespace Sentrel::ctl
