// Writing files: all of a text, and a file's new content in one step.
#pragma once

#include <string>
#include <string_view>

/// Free functions. Threads: any, but as each says. Owner: none.
/// All throw std::system_error when the system refuses: its code is the errno, its text names the file and what failed.
namespace Sentrel {

/// Writes all of @p bytes, however many calls that takes. What was written before a failure stays written.
/// @param name what stands for the descriptor in the text of a failure.
void writeAll(int fd, std::string_view bytes, const std::string& name);

/// What a replaced file is like afterwards.
enum class Replace {
    /// A regular file is there and keeps its mode, and its owner and group where this process may give files away;
    /// anything else, a link too, is EINVAL or ELOOP and stays. Of several writers at once the last exchange remains.
    /// What a writer that was killed left behind stays beside it, under a hidden name that is in nobody's way.
    KeepingModeAndOwner,
    /// The file is this user's, with mode 0600; whatever was there, a link too, gives way. One writer at a time: what
    /// one that was killed left behind goes.
    AsPrivate,
};

/// Gives the file at @p path the content @p bytes: a new file beside it is written, synced and renamed, then the
/// directory is synced. When this returns it survives a power cut, unless a KeepingModeAndOwner is on a file system
/// that cannot sync directories. When it throws, what was there before is still there, unless nothing but the
/// directory's sync failed.
void replaceFile(const std::string& path, std::string_view bytes, Replace how);

/// Makes the file with mode 0600, synced with its directory. One that is there already stays, whoever made it and
/// when: EEXIST. Who is killed meanwhile may leave a part of it.
void makePrivateFile(const std::string& path, std::string_view bytes);

} // namespace Sentrel
