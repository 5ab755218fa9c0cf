// The settings file, open for reading.
#pragma once

#include "base/Database.h"
#include "platform/settings/SettingsSnapshot.h"

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace Sentrel::keeper {

/// One read-only connection to the settings file. As long as it is open no writer's close is the last one, and so none
/// writes the write-ahead log back. Between two calls it holds no lock and reads nothing.
/// Threads: one at a time. Owner: the watch.
class KeptFile {
public:
    /// @throws DatabaseError when there is no file, or it is a link or cannot be opened by this user.
    explicit KeptFile(const std::string& path);

    /// Whether this is still the file at the path.
    bool isInPlace() const noexcept;

    /// A number that is another one after each change that another process committed. Take it before what it is for:
    /// what is read then has this version or a later one. @throws DatabaseError
    std::int64_t version();

    /// Reads the numbers, what is unreadable of them, and the proxy. The rest of @p into stays. @throws DatabaseError
    void readSingles(settings::SettingsSnapshot& into);
    /// Reads the three lists, as they were at one time. The rest of @p into stays. @throws DatabaseError
    void readLists(settings::SettingsSnapshot& into);

    /// How many rows @p list has: "allow_block", "categories" or "private_ranges". @throws DatabaseError
    std::uint64_t rowsOf(std::string_view list);

    /// Looks at every page. @return the first trouble in SQLite's words; empty when there is none. @throws
    /// DatabaseError
    std::string check();

private:
    std::string m_path; ///< constant after construction
    dev_t m_device = 0; ///< the same
    ino_t m_inode = 0;  ///< the same
    DatabasePtr m_database;
};

} // namespace Sentrel::keeper
