// The doctor's checks of the settings file: whose it is, whether it has its tables, whether it is whole.
//
// What must stay so: the file is not opened while others can write into its directory. They may have put a journal
// beside it, and opening the file would apply it.
#include "apps/sentrelctl/doctor/DoctorSettings.h"

#include "apps/sentrelctl/preferences/SettingsRepair.h"
#include "apps/sentrelctl/preferences/SettingsTables.h"
#include "apps/sentrelctl/terminal/Failure.h"
#include "base/Paths.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace Sentrel::ctl {
namespace {

constexpr const char* kMakeIt = "Make it with 'sentrelctl settings init'";

/// What is wrong with the file itself, whatever is in it; none when nothing is.
std::optional<Diagnosis> wrongFile(const std::string& path, const struct stat& facts) {
    if (!S_ISREG(facts.st_mode)) {
        return failed("settings-no-file", path + " is no regular file",
                      "Find out who put it there, remove it, and run 'sentrelctl settings init'");
    }
    const std::optional<uid_t> daemon = daemonUser();
    if (daemon && facts.st_uid != *daemon) {
        return failed("settings-owner", fmt::format("{} is {}'s and not the daemon's", path, userName(facts.st_uid)),
                      fmt::format("chown {} {}", userName(*daemon), path));
    }
    for (const std::string& each : {path, path + "-wal", path + "-shm", directoryOf(path)}) {
        if (const std::string bits = lockedBits(each); !bits.empty()) {
            return failed("settings-immutable", fmt::format("{} is {}: no change can be stored", each, bits),
                          fmt::format("chattr -i -a {}, and ask who set that", each));
        }
    }
    if (othersCanWrite(facts)) {
        return failed("settings-open",
                      fmt::format("others than its owner can write {}: it has {}", path, modeText(facts)),
                      "Run 'sentrelctl settings init', and look whether the preferences are still yours");
    }
    return std::nullopt;
}

Diagnosis settingsFile(double /*timeout*/) {
    const std::string path = paths::settingsFile();
    const std::optional<struct stat> facts = factsOf(path);
    if (!facts) {
        return failed("settings-missing", "there is no " + path, kMakeIt);
    }
    if (std::optional<Diagnosis> wrong = wrongFile(path, *facts)) {
        return *wrong;
    }
    if ((facts->st_mode & S_IROTH) != 0) {
        return warning(
            "settings-readable",
            fmt::format("every user can read {}, and whoever reads it can hold up changes: it has {}", path,
                        modeText(*facts)),
            "Run 'sentrelctl settings init', unless this site has other readers: docs/security.md says what they cost");
    }
    return healthy(fmt::format("{} is {}'s, {}", path, userName(facts->st_uid), modeText(*facts)));
}

/// Whether the file is one that 'settings init' would refuse, or has no page at all: what else is asked of it then
/// makes no sense.
bool isForeign(const std::string& path) {
    try {
        return findSettingsTables(path, "").present.empty();
    } catch (const ForeignFile&) {
        return true;
    } catch (const Failure&) {
        return false; // the check itself tells why it cannot be read
    }
}

Diagnosis settingsTables(double /*timeout*/) {
    const std::string path = paths::settingsFile();
    needSettingsFile(path);
    try {
        const SettingsTables tables = findSettingsTables(path, "cannot look into the settings file");
        if (!tables.created.empty()) {
            return failed("settings-tables-missing", fmt::format("{} lacks {}", path, fmt::join(tables.created, ", ")),
                          "Make them with 'sentrelctl settings init'");
        }
        return healthy(fmt::format("{} has all {} tables", path, tables.present.size()));
    } catch (const ForeignFile& failure) {
        return failed(
            "settings-foreign", fmt::format("{} is no settings file: {}", path, failure.why()),
            fmt::format("Move it away, with what begins with its name; then make one with 'sentrelctl settings "
                        "init', and restart sentreld"));
    }
}

Diagnosis settingsContent(double /*timeout*/) {
    const std::string path = paths::settingsFile();
    needSettingsFile(path);
    if (isForeign(path)) {
        throw CannotSee("it has none of the tables: 'settings-tables' tells what to do");
    }
    const std::optional<std::string> damage = damageInSettings(path);
    if (damage) {
        return failed("settings-damaged", fmt::format("{} is damaged: {}", path, *damage),
                      "'sentrelctl settings init --repair' shows what can be saved, and what it would do");
    }
    return healthy(path + " is whole");
}

} // namespace

void needSettingsFile(const std::string& path) {
    const std::optional<struct stat> directory = factsOf(directoryOf(path));
    if (!factsOf(path)) {
        throw CannotSee("there is no settings file");
    }
    if (directory && othersCanWrite(*directory)) {
        // What another user planted beside it would be put into force by opening it.
        throw CannotSee("not opened while others can write into its directory");
    }
    needReadable(path);
}

void needSettingsTables(const std::string& path) {
    needSettingsFile(path);
    try {
        if (findSettingsTables(path, "").created.empty()) {
            return;
        }
    } catch (const Failure&) {
        // 'settings-tables' tells what is wrong
    }
    throw CannotSee("the settings file has not all of its tables");
}

const std::vector<Check>& settingsChecks() {
    static const std::vector<Check> all{
        {"settings-file", settingsFile},
        {"settings-tables", settingsTables},
        {"settings-content", settingsContent},
        {"settings-values", settingsValues},
    };
    return all;
}

} // namespace Sentrel::ctl
