// Files that hold a secret or a decision.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Free functions. Threads: any. Owner: none.
namespace HVBEnterprise::agent {

/// Who may have access to a file that is read.
enum class FileAccess {
    Anybody,
    OwnerWrites, ///< its group and others may read it at most, and it is this user's or root's
    OwnerAlone,  ///< its group and others may touch it in no way, and it is this user's or root's
};

/// Everything in a regular file of at most @p maxBytes. A symbolic link, a FIFO, a device and a file with more than
/// @p access are refused.
/// @throws std::system_error with the file's name in its text; ENOENT stays ENOENT, and too much access is EACCES.
std::string readRegularFile(const std::string& path, std::size_t maxBytes, FileAccess access);

/// Refuses, as readRegularFile does for OwnerAlone, a file that another library is going to read. Follows links, whose
/// target is what counts. @throws std::system_error with the file's name in its text.
void requireOwnerAlone(const std::string& path);

/// Puts @p bytes at @p path with mode 0600: written beside it, synced, renamed, and the directory synced. When this
/// returns it survives a power cut; when it throws, what was there before is still there, unless nothing but the
/// directory's sync failed. One writer at a time.
/// @throws std::system_error with the file's name in its text.
void replaceFile(const std::string& path, std::string_view bytes);

/// Makes the file with mode 0600, synced with its directory. One that is there already stays, whoever made it and
/// when: EEXIST. Who is killed meanwhile may leave a part of it.
/// @throws std::system_error with the file's name in its text.
void makeFile(const std::string& path, std::string_view bytes);

} // namespace HVBEnterprise::agent
