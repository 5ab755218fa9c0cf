// Files that hold a secret or a decision.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Free functions. Threads: any. Owner: none.
namespace HVBEnterprise::agent {

/// Who may have access to a file that is read.
enum class FileAccess { Anybody, OwnerAlone };

/// Everything in a regular file of at most @p maxBytes. A symbolic link, a FIFO and a device are refused, and so is,
/// for OwnerAlone, a file that its group or others may touch in any way, or that is neither this user's nor root's.
/// @throws std::system_error with the file's name in its text; ENOENT stays ENOENT.
std::string readRegularFile(const std::string& path, std::size_t maxBytes, FileAccess access);

/// Puts @p bytes at @p path with mode 0600: written beside it, synced, renamed, and the directory synced. When this
/// returns it survives a power cut; when it throws, what was there before is still there.
/// @throws std::system_error with the file's name in its text.
void replaceFile(const std::string& path, std::string_view bytes);

/// As replaceFile, but a file that is there already stays: EEXIST.
void makeFile(const std::string& path, std::string_view bytes);

} // namespace HVBEnterprise::agent
