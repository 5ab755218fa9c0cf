// How the process that keeps the settings file open lets go of it, while another one converts or repairs it.
#pragma once

#include "base/UniqueFd.h"

#include <chrono>
#include <string>

namespace Sentrel {

/// The file beside @p settingsFile that both sides lock. It is empty, stays where it is, and belongs to the owner of
/// the directory, who alone may open it.
std::string handoverFile(const std::string& settingsFile);

/// The keeper's side: a hold on the settings file that others can ask for. The system ends it with the process.
/// Threads: one at a time. Owner: the keeper, which has the settings file open only while it holds.
class SettingsHold {
public:
    explicit SettingsHold(const std::string& settingsFile) : m_file(handoverFile(settingsFile)) {}

    /// Takes hold, unless somebody asks for the file or has it. Does not wait; a hold that is there stays.
    /// @return whether it holds now. @throws std::system_error when the file beside it cannot be made or opened.
    bool take();
    /// Requires that the settings file is closed.
    void letGo() noexcept { m_fd.reset(); }

    bool isHeld() const { return m_fd.isOpen(); }
    /// Whether the keeper is to let go: somebody asks for the file, or the lock is not at its place any more. Costs two
    /// system calls. Whoever asks also touches handoverFile, for those who watch it.
    bool isAskedFor() const noexcept;

private:
    std::string m_file; ///< constant after construction
    UniqueFd m_fd;      ///< open while it holds
};

/// The other side: while it lives the settings file has no keeper, and no second process has this object for it.
/// Threads: one at a time. Owner: a local of the conversion; the settings file is closed before it ends.
class SettingsHandover {
public:
    /// Asks for the file and waits until the keeper has let go. Without a keeper it does not wait.
    /// Requires the rights of the directory's owner.
    /// @throws std::system_error with ETIMEDOUT when the keeper, or another process that converts, still has the file
    ///         after @p patience; its text says who and what to do. Any other code: the file beside it cannot be used.
    SettingsHandover(const std::string& settingsFile, std::chrono::milliseconds patience);

private:
    UniqueFd m_fd; ///< open as long as it lasts
};

} // namespace Sentrel
