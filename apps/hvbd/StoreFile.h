// The log store as a file: made with its mode, never through a symlink, and recognised when it was taken away.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

namespace HVB::hub {

/// Which file stands at a path. Two that are equal are the same file.
struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;

    bool operator==(const FileIdentity&) const = default;
};

struct FileFacts {
    FileIdentity identity;
    std::int64_t size = 0;
};

/// The regular file at @p path; none when there is none, or something else, or only a symlink.
std::optional<FileFacts> regularFileAt(const std::string& path);

/// @p path with the symlinks of its directory resolved and its last part as it is. @throws std::system_error
std::string resolvedDirectory(const std::string& path);

/// Makes sure that a regular file that this process may write stands at @p path; makes an empty one of mode 0640.
/// Leaves no descriptor open: closing one later would drop SQLite's locks on the file.
/// @throws std::system_error ELOOP for a symlink, EISDIR for a directory, EINVAL for another thing that is no file.
FileIdentity makeStoreFile(const std::string& path);

} // namespace HVB::hub
