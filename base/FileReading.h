// Reading files: whole, up to a limit, and only from those who may be trusted with them.
#pragma once

#include <cerrno>
#include <cstddef>
#include <string>
#include <system_error>

/// Free functions. Threads: any. Owner: none.
/// All throw std::system_error when the system refuses: its code is the errno, its text names the file and what failed.
/// The code is EFBIG when there is more than the limit.
namespace Sentrel {

/// A file that users besides its owner can access, or that belongs to another user. Its code is EACCES, although the
/// system refused nothing.
class UnsafeFile : public std::system_error {
public:
    explicit UnsafeFile(const std::string& what) : std::system_error(EACCES, std::system_category(), what) {}
};

/// Who may have access to a file that is read.
enum class FileAccess {
    Anybody,
    OwnerWrites, ///< it is this user's or root's; group and others may at most read it
    OwnerAlone,  ///< it is this user's or root's; group and others have no access
};

/// Whether the last part of a path may be a symbolic link. Links to directories before it are followed in any case.
enum class Links {
    Follow,
    FollowToPublic, ///< followed to a file that every user may read, so that who made the link learns nothing new
    Refuse,
};

/// Everything that @p fd still gives, at most @p maxBytes bytes; the rest of a longer one is not read. A text of up to
/// 64 KiB is copied nowhere else in memory, so that a caller can wipe a secret.
/// @param name what the text of a failure calls the descriptor.
std::string readUpTo(int fd, std::size_t maxBytes, const std::string& name);

/// As readUpTo, of the file @p name, or of @p inputFd when the name is "-". Follows links and waits on pipes, as a user
/// expects of a file that was named on a command line.
std::string readFileOrInput(const std::string& name, int inputFd, std::size_t maxBytes);

/// Everything in a regular file of at most @p maxBytes bytes. A FIFO, a device or a directory is EINVAL, without a
/// wait. A link that is refused is ELOOP. A file that more users can access than @p access allows is an UnsafeFile, and
/// so is one behind a link that only some may read, for FollowToPublic.
std::string readRegularFile(const std::string& path, std::size_t maxBytes, FileAccess access,
                            Links links = Links::Refuse);

/// Checks a file that another library is going to read, as readRegularFile does for OwnerAlone. Follows links: the
/// target counts.
void requireOwnerAlone(const std::string& path);

} // namespace Sentrel
