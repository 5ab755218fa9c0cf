// Who may read the settings file, and how SQLite writes it: what the file itself keeps, beside its tables.
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

namespace Sentrel::ctl {

/// To read a SQLite file is to lock it, so a reader can keep changes out of it.
enum class SettingsReaders {
    DaemonAlone, ///< mode 0640, with a write-ahead log, in which a reader stops nobody
    Everybody,   ///< mode 0644, with a rollback journal, which readers can use without writing into the directory
};

/// The mode of the file for those readers.
mode_t modeFor(SettingsReaders readers);

/// SQLite's name of the journal mode for those readers: "wal" or "delete".
const char* journalFor(SettingsReaders readers);

/// How the file is written at present, as SQLite names it: "wal" or "delete", from the header's bytes alone.
/// @param header the first bytes of the file, at least the 100 of a SQLite header.
const char* journalIn(const std::string& header);

/// Brings the existing settings file at @p path, and what SQLite has put beside it, into the form for @p readers.
/// Called as the file's owner, with no connection of this process open on it, and without a keeper when the journal
/// changes (base/SettingsHandover.h). What has that form already is not touched.
/// @return what was changed, each as a phrase: "its mode is 0640 now".
/// @throws std::system_error when a mode cannot be changed; DatabaseError when the journal mode cannot, which another
/// program's open transaction prevents.
std::vector<std::string> giveSettingsForm(const std::string& path, const std::string& header, SettingsReaders readers);

} // namespace Sentrel::ctl
