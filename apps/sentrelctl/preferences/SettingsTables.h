// Makes the tables of the settings file, which the daemon itself never does.
#pragma once

#include "apps/sentrelctl/preferences/SettingsForm.h"
#include "apps/sentrelctl/terminal/Failure.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Sentrel::ctl {

/// Which tables were there, and which were made, or would have to be.
struct SettingsTables {
    std::vector<std::string> present;
    std::vector<std::string> created;
};

/// The failure at a file that is there and is no settings file, so that nothing in it is this program's.
class ForeignFile : public Failure {
public:
    explicit ForeignFile(Failure failure) : Failure(std::move(failure)) {}
};

/// Looks which of the tables the settings file at @p path has, and which it lacks. Nothing is changed.
/// @param what could not be done, for a failure.
/// @throws ForeignFile when it is no settings file; another Failure when there is none, or it cannot be read.
SettingsTables findSettingsTables(const std::string& path, const char* what);

/// The bytes that the settings file has under each of @p keys; none for a key that it does not have. Nothing is
/// changed.
/// @throws Failure, as findSettingsTables does, and when the table of the single settings is missing.
std::vector<std::optional<std::string>> readSettings(const std::string& path, const std::vector<const char*>& keys,
                                                     const char* what);

/// Makes a process of root's the owner of the directory of the file at @p path, for good: the daemon's user. Any other
/// process stays what it is.
/// @throws Failure when the directory is missing, or is root's and others can write into it.
void becomeOwnerOfSettings(const std::string& path);

/// What was done to the settings file.
struct SettingsSetUp {
    SettingsTables tables;
    std::vector<std::string> changes; ///< of the form of a file that was there, as giveSettingsForm() says them
};

/// Makes the tables that the settings file at @p path lacks, and the file when there is none, and gives it the form for
/// @p readers. No row that is there is changed. A process of root's becomes the owner of the directory for this, and
/// for good: the file then belongs to the user whom the daemon runs as, and a link that this user planted leads nowhere
/// else.
/// @throws Failure when the file is no settings file, or cannot be read or written; no row was changed then.
SettingsSetUp setUpSettingsFile(const std::string& path, SettingsReaders readers);

} // namespace Sentrel::ctl
