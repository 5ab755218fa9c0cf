// Writing files: all of a text, and a file's new content in one step.
#pragma once

#include <memory>
#include <string>
#include <string_view>

/// Free functions. Threads: any, unless a function says otherwise. Owner: none. All throw std::system_error when the
/// system refuses: its code is the errno, its text names the file and what failed.
namespace Sentrel {

/// Writes all of @p bytes, however many calls that takes. What was written before a failure stays written.
/// @param name what the text of a failure calls the descriptor.
void writeAll(int fd, std::string_view bytes, const std::string& name);

/// What a replaced file is like afterwards.
enum class Replace {
    /// Requires a regular file that this process may read. It keeps its mode, owner, group, access list and other
    /// attributes; only labels of the security.* kind are the system's to give. What this process may not give it is
    /// EPERM, and the old file stays: another program may depend on it to read the file. Anything else, a link too,
    /// stays as it is and is EINVAL or ELOOP. When several writers replace it at once, the last rename wins. A writer
    /// that is killed leaves its new file behind under a hidden name, where it disturbs nobody.
    KeepingModeAndOwner,
    /// The file is this user's, with mode 0600. Whatever was there is replaced, a link too. One writer at a time: what
    /// a writer that was killed left behind is removed.
    AsPrivate,
};

/// Gives the file at @p path the content @p bytes: a new file beside it is written, synced and renamed, then the
/// directory is synced. When this returns, the new content survives a power cut; only KeepingModeAndOwner does not
/// promise that on a file system that cannot sync directories. When it throws, the old content is still there, unless
/// only the directory's sync failed.
void replaceFile(const std::string& path, std::string_view bytes, Replace how);

/// The new content of a file that is too long for memory: a new file beside it takes its place once it is whole. Every
/// user may read it (mode 0644), and whatever was there is replaced, a link too. One writer at a time: what a writer
/// that was killed left behind is removed.
/// Threads: one at a time. Owner: the operation. Without a commit nothing is changed.
class FileReplacement {
public:
    explicit FileReplacement(const std::string& path);
    ~FileReplacement();
    FileReplacement(const FileReplacement&) = delete;
    FileReplacement& operator=(const FileReplacement&) = delete;

    /// Where the content is written to. It stays this object's.
    int fd() const;

    /// Syncs, closes and renames it, then syncs the directory. When it throws, the old content is still there, unless
    /// only the directory's sync failed. Requires that it was not called before.
    void commit();

private:
    struct Files;
    const std::unique_ptr<Files> m_files;
};

/// Whose a new file is.
enum class NewFileFor {
    Maker,           ///< this user's alone, mode 0600
    DirectoryOwner,  ///< mode 0600; from root it goes to the owner and the group of its directory
    MakerAndReaders, ///< this user's, with mode 0644
};

/// Makes the file, synced with its directory. A file that is already there stays as it is: EEXIST. Owner and mode are
/// set by descriptor, before there is anything in it. A process that is killed meanwhile may leave a part of the file.
void makeFile(const std::string& path, std::string_view bytes, NewFileFor whom);

} // namespace Sentrel
