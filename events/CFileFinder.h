// Finds the per-user data file of the browser side.
#pragma once

#include <string>

namespace NOrvanta {

/// Static functions over the per-user data directory, for the browser side; the daemon does not call them.
/// Threads: any. Owner: none, it is only a scope.
class CFileFinder {
public:
    enum Result : int {
        Success = 0,
        NoSuchFile = 10,
        NoCallback = -1,
        NotImplemented = -7,
        SystemFailure = -9,
    };

    /// Is called for each home directory; false ends the scan.
    using HomeCallback = bool (*)(const std::string& home, void* context);

    /// The current user's data directory, with a trailing slash.
    static int GetMyHome(std::string& home);

    /// Calls @p callback for each directory entry under /Users that does not begin with a dot.
    static int EnumHomes(HomeCallback callback, void* context);

    /// The current user's data file. @param check whether a file that its owner may read must be there.
    static int GetDefaultName(std::string& name, bool check);

    /// The newest data file of all users; of equally old ones the one found first.
    static int GetLatestName(std::string& name);

    /// The current user's data directory. @param make whether it is to be made when it is not there; something else in
    /// its place is removed.
    static int GetDefaultPath(std::string& path, bool make);

    static bool FileExists(const std::string& name);

    /// Always NotImplemented.
    static int GetInstallPath(std::string& path);
};

} // namespace NOrvanta
