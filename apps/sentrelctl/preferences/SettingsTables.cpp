// Making and reading the settings file's tables, beside the daemon.
//
// The order of the steps keeps a foreign file whole. Everything that can be wrong is looked for before the first write:
// first the header's bytes, without SQLite; then the tables' names; then whether statements that need the right columns
// can be prepared, which runs none of them. A file with other tables, or with a mark of another program or a later
// version, is left as it is.
//
// What must stay so:
// - Root becomes the owner of the directory before it looks at the file, and stays so. That user could have planted a
//   link under the file's name; it then leads to nothing that the user could not reach. The new file also belongs to
//   the daemon.
// - The file is never readable by others on its way to its mode: it is made with it.
// - An Init that fails inside may still report success, so the tables are looked for again after they were made.
// - This is the one source of the command line client that includes store/: the statements that make the tables are the
//   daemon's own.
#include "apps/sentrelctl/preferences/SettingsTables.h"

#include "apps/sentrelctl/terminal/Failure.h"
#include "base/Database.h"
#include "base/SettingsHandover.h"
#include "base/UniqueFd.h"
#include "store/DBSettings.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <optional>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace Sentrel::ctl {
namespace {

constexpr const char* kCannot = "cannot set up the settings file";

/// A table, and a statement that can be prepared only when it has the columns that it should have.
struct Table {
    const char* name;
    const char* probe;
};
constexpr std::array<Table, 4> kTables{{
    {"vxsetting", "insert or replace into vxsetting(name,value) values (?,?)"},
    {"catblockinginfo", "insert or replace into catblockinginfo(name,value) values (?,?)"},
    {"allowblocksettings", "insert or replace into allowblocksettings(name,value) values (?,?)"},
    {"privateIPRange", "insert or replace into privateIPRange(range) values (?)"},
}};
constexpr std::string_view kCountOthers = "select count(*) from sqlite_master where type='table' and name not like "
                                          "'sqlite_%' and name not in ('vxsetting','catblockinginfo',"
                                          "'allowblocksettings','privateIPRange')";

Failure failure(const std::string& where, std::string why, std::string nextStep, ExitCode code = ExitCode::Failed) {
    return {code, kCannot, where, std::move(why), std::move(nextStep)};
}

Failure systemFailure(const std::string& where, int error) {
    const bool isRight = error == EACCES || error == EPERM;
    return failure(where, errnoText(error), isRight ? "Run it as root or as the directory's owner" : "",
                   isRight ? ExitCode::NoAccess : ExitCode::Failed);
}

/// The facts of the file's directory, whose owner is the user whom the daemon runs as.
struct stat statOfDirectory(const std::string& directory) {
    struct stat status {};
    if (::lstat(directory.c_str(), &status) != 0) {
        if (errno == ENOENT) {
            throw failure(directory, "there is no such directory",
                          "Make it with mode 0755 for the user whom the daemon runs as");
        }
        throw systemFailure(directory, errno);
    }
    if (!S_ISDIR(status.st_mode)) {
        throw failure(directory, "it is not a directory", "Make it one, with mode 0755, for the daemon's user");
    }
    return status;
}

void becomeOwnerOf(const std::string& directory) {
    const struct stat status = statOfDirectory(directory);
    if (::geteuid() != 0) {
        return;
    }
    if (status.st_uid == 0) {
        if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
            throw failure(directory, "it is root's and others can write into it",
                          "Give it to the daemon's user, or take the write access from others with chmod go-w");
        }
        return;
    }
    // The groups first: without root's rights they cannot be changed any more.
    if (::setgroups(1, &status.st_gid) != 0 || ::setresgid(status.st_gid, status.st_gid, status.st_gid) != 0 ||
        ::setresuid(status.st_uid, status.st_uid, status.st_uid) != 0) {
        throw systemFailure(directory, errno);
    }
}

/// The beginning of the file; empty when there is none or it is empty.
std::string headerOf(const std::string& path) {
    constexpr std::size_t headerBytes = 100; // of any SQLite file
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        if (errno == ENOENT) {
            return {};
        }
        throw systemFailure(path, errno);
    }
    if (!S_ISREG(status.st_mode)) {
        throw failure(path, S_ISLNK(status.st_mode) ? "it is a symbolic link" : "it is not a regular file",
                      "Find out who put it there, and remove it");
    }
    const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd.isOpen()) {
        throw systemFailure(path, errno);
    }
    std::string header(headerBytes, '\0');
    const ssize_t got = ::read(fd.get(), header.data(), header.size());
    if (got < 0) {
        throw systemFailure(path, errno);
    }
    header.resize(static_cast<std::size_t>(got));
    return header;
}

/// Whether a later version, or another program, has put its mark on a database.
bool isMarked(std::string_view header) {
    constexpr std::size_t formatVersions = 18; // one byte for writers, one for readers
    constexpr std::size_t userVersion = 60;
    constexpr std::size_t applicationId = 68;
    constexpr char lastFormat = 2;
    const auto isZero = [header](std::size_t at) { return header.substr(at, 4) == std::string_view("\0\0\0\0", 4); };
    return header[formatVersions] > lastFormat || header[formatVersions + 1] > lastFormat || !isZero(userVersion) ||
           !isZero(applicationId);
}

std::string wordsOf(int sqliteError) {
    constexpr std::array<std::pair<int, const char*>, 8> words{{
        {5, "another process holds it"},
        {6, "another process holds it"},
        {8, "it cannot be written"},
        {10, "the disk fails"},
        {11, "it is damaged"},
        {13, "the disk is full"},
        {14, "it cannot be opened"},
        {26, "it is no database"},
    }};
    for (const auto& [code, text] : words) {
        if (code == sqliteError) {
            return text;
        }
    }
    return fmt::format("the database error {}", sqliteError);
}

Failure databaseFailure(const std::string& path, int error) {
    constexpr int busy = 5;
    return failure(path, wordsOf(error),
                   error == busy ? "Try again when the other one is done"
                                 : "Mend that; or move the file away, which gives the preferences their first values");
}

Failure databaseFailure(const std::string& path, const CVXDBSettings& settings) {
    return databaseFailure(path, settings.GetLastError());
}

/// The number that @p sql gives. None when the query fails or gives no row.
std::optional<int> numberOf(const CVXDBSettings& settings, std::string_view sql) {
    CSQLiteRowSet row;
    if (!row.Open(settings, sql.data(), sql.size()) || !row.Execute() || !row.m_bHasRow) {
        return std::nullopt;
    }
    return row.GetColInt(0);
}

bool canPrepare(const CVXDBSettings& settings, std::string_view sql) {
    CSQLiteRowSet row;
    return row.Open(settings, sql.data(), sql.size());
}

ForeignFile foreignFailure(const std::string& path, std::string why) {
    return ForeignFile(failure(path, std::move(why), "Nothing was changed; move the file away if it is not needed"));
}

/// Which tables are there. @throws Failure for a file that cannot be read or has something else under their names.
SettingsTables look(const std::string& path, CVXDBSettings& settings) {
    SettingsTables tables;
    for (const Table& table : kTables) {
        const std::optional<int> count =
            numberOf(settings, fmt::format("select count(*) from sqlite_master where name='{}'", table.name));
        if (!count) {
            throw databaseFailure(path, settings);
        }
        if (*count > 0 && !canPrepare(settings, table.probe)) {
            throw foreignFailure(path, fmt::format("its table {} has other columns", table.name));
        }
        (*count > 0 ? tables.present : tables.created).emplace_back(table.name);
    }
    return tables;
}

/// What is there and what is to be made.
SettingsTables lookBefore(const std::string& path) {
    constexpr std::string_view magic("SQLite format 3\0", 16);
    const std::string header = headerOf(path);
    if (header.empty()) {
        SettingsTables none;
        for (const Table& table : kTables) {
            none.created.emplace_back(table.name);
        }
        return none;
    }
    constexpr std::size_t wholeHeader = 100;
    if (header.size() < wholeHeader || !header.starts_with(magic)) {
        throw foreignFailure(path, "it is no database");
    }
    CVXDBSettings settings;
    if (!settings.Init(path.c_str(), false)) {
        throw databaseFailure(path, settings);
    }
    SettingsTables tables = look(path, settings);
    if (!tables.created.empty() && (isMarked(header) || numberOf(settings, kCountOthers).value_or(1) > 0)) {
        throw foreignFailure(path, "it was made by another program, or by a later version of this one");
    }
    return tables;
}

/// A key is stored with its terminator.
std::optional<std::string> valueOf(const std::string& path, const CVXDBSettings& settings, const char* key) {
    constexpr std::string_view sql = "select value from vxsetting where name=?";
    CSQLiteRowSet row;
    const bool isAsked =
        row.Open(settings, sql.data(), sql.size()) && row.BindText(1, key, std::strlen(key) + 1) && row.Execute();
    if (isAsked && row.m_bHasRow) {
        const auto [bytes, size] = row.GetColBlob(0);
        return std::string(static_cast<const char*>(bytes), static_cast<std::size_t>(size));
    }
    if (!isAsked || !row.Reset()) { // only Reset tells that the step failed
        throw databaseFailure(path, settings);
    }
    return std::nullopt;
}

void refuseUnwritable(const std::string& path, const std::string& directory) {
    if (::access(directory.c_str(), W_OK | X_OK) != 0) {
        throw systemFailure(directory, errno);
    }
    if (::access(path.c_str(), F_OK) == 0 && ::access(path.c_str(), R_OK | W_OK) != 0) {
        throw systemFailure(path, errno);
    }
}

void create(const std::string& path, SettingsReaders readers) {
    const mode_t before = ::umask(~modeFor(readers) & ACCESSPERMS);
    CVXDBSettings settings;
    const bool isDone = settings.Init(path.c_str(), true);
    ::umask(before);
    // Init reports success also after an exception inside it, so only a second look tells.
    if (!isDone || !look(path, settings).created.empty()) {
        throw databaseFailure(path, settings);
    }
}

/// @param isNew nobody else can have the file open.
std::vector<std::string> withForm(const std::string& path, SettingsReaders readers, bool isNew) {
    constexpr std::chrono::seconds patience{2};
    try {
        const std::string header = headerOf(path);
        std::optional<SettingsHandover> handover;
        if (!isNew && std::string_view(journalIn(header)) != journalFor(readers)) {
            handover.emplace(path, patience);
        }
        return giveSettingsForm(path, header, readers);
    } catch (const std::system_error& error) {
        throw error.code().value() == ETIMEDOUT ? failure(path, error.what(), "")
                                                : systemFailure(path, error.code().value());
    } catch (const DatabaseError& error) {
        throw databaseFailure(path, error.code());
    }
}

} // namespace

SettingsTables findSettingsTables(const std::string& path, const char* what) {
    try {
        struct stat status {};
        if (::lstat(path.c_str(), &status) != 0) {
            throw errno == ENOENT ? failure(path, "there is no such file", "Make it with 'sentrelctl settings init'")
                                  : systemFailure(path, errno);
        }
        return lookBefore(path);
    } catch (const ForeignFile& failure) {
        throw ForeignFile(failure.of(what));
    } catch (const Failure& failure) {
        throw failure.of(what);
    }
}

std::vector<std::optional<std::string>> readSettings(const std::string& path, const std::vector<const char*>& keys,
                                                     const char* what) {
    const SettingsTables tables = findSettingsTables(path, what);
    try {
        if (std::find(tables.present.begin(), tables.present.end(), "vxsetting") == tables.present.end()) {
            throw failure(path, "its table vxsetting is missing", "Make it with 'sentrelctl settings init'");
        }
        CVXDBSettings settings;
        if (!settings.Init(path.c_str(), false)) {
            throw databaseFailure(path, settings);
        }
        std::vector<std::optional<std::string>> values;
        values.reserve(keys.size());
        for (const char* key : keys) {
            values.push_back(valueOf(path, settings, key));
        }
        return values;
    } catch (const Failure& failure) {
        throw failure.of(what);
    }
}

void becomeOwnerOfSettings(const std::string& path) {
    becomeOwnerOf(path.substr(0, path.rfind('/')));
}

SettingsSetUp setUpSettingsFile(const std::string& path, SettingsReaders readers) {
    const std::string directory = path.substr(0, path.rfind('/'));
    becomeOwnerOf(directory);
    SettingsSetUp done{lookBefore(path), {}};
    const bool isNew = headerOf(path).empty();
    if (!done.tables.created.empty()) {
        refuseUnwritable(path, directory);
        create(path, readers);
    }
    std::vector<std::string> changes = withForm(path, readers, isNew);
    if (!isNew) {
        done.changes = std::move(changes);
    }
    return done;
}

} // namespace Sentrel::ctl
