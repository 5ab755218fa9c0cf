// What of the settings file may be served, and when it is whole.
#pragma once

#include "apps/settings-keeper/KeptFile.h"
#include "apps/settings-keeper/PolicyWatch.h"
#include "base/FileStamp.h"
#include "base/SettingsHandover.h"
#include "platform/settings/SettingsSnapshot.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace Sentrel::keeper {

/// Follows the settings file. The daemon replaces a list row by row, so the file shows a part of it meanwhile: the
/// lists that are served are those of the last whole state. A state is whole when the daemon has told of a change and
/// makes no other one, when the file has rested, or when the daemon has gone, which leaves what it had written.
///
/// Lets go of the file while somebody converts or repairs it, and takes it again by itself.
/// Threads: one at a time. Owner: the keeper.
class SettingsWatch {
public:
    using Time = std::chrono::steady_clock::time_point;

    /// @param policy when there is one, the snapshot says what it rules.
    explicit SettingsWatch(std::string path, std::optional<PolicyWatch> policy = std::nullopt);

    // Each looks at the file first. None of them throws: what goes wrong is in the snapshot or in trouble. Each takes
    // the current time.

    /// To be called after untilNextLook, and when somebody may want the file.
    void look(Time now);
    /// The daemon has told of a change.
    void daemonTold(Time now);
    /// The daemon has gone, or another one has come: what is in the file is all that there will be.
    void daemonChanged(Time now);
    /// Looks whether the lists are as the snapshot has them, without waiting. @return isSettled
    bool compare(Time now);
    /// Somebody replaces a list that will have so many rows. While it changes the snapshot says how far it is. The note
    /// ends with none, or when the list is whole.
    void note(std::optional<settings::Replacement> replacement, Time now);
    /// Looks at every page, when it is time for that.
    void checkWhenDue(Time now);

    std::chrono::milliseconds untilNextLook() const;
    /// Whether the snapshot has all that the file held at the last look.
    bool isSettled() const { return m_trouble.empty() && m_snapshot.has_value() && !m_isPending; }
    /// Why the file could not be read at the last look, for people; empty when it could. A snapshot of no file, or of
    /// one that is damaged, is no trouble.
    const std::string& trouble() const { return m_trouble; }
    /// What is to be served; none until the first whole state.
    const std::optional<settings::SettingsSnapshot>& snapshot() const { return m_snapshot; }
    /// A number that rises when the snapshot has other content. The time of its reading alone is no other content.
    std::uint64_t revision() const { return m_revision; }
    /// The file that whoever asks for the settings file touches.
    std::string askingFile() const { return handoverFile(m_path); }
    bool isHeld() const { return m_hold.isHeld(); }

private:
    template <class Work>
    void guarded(Time now, const Work& work);
    bool holdFile(Time now);
    bool openFile(Time now);
    void letGo() noexcept;
    void lookInto(Time now);
    void readSingles();
    void lookAtPolicy();
    bool areListsServed();
    void setChanging(bool isChanging);
    void followReplacement(Time now);
    void settle(bool isShort);
    void serve(settings::SettingsSnapshot&& next);
    void noteFailure(const DatabaseError& error, Time now);
    void serveNothing(const std::string& why, Time now);
    std::chrono::milliseconds quiet() const;

    const std::string m_path; ///< constant after construction
    // Plain, single access.
    SettingsHold m_hold;
    std::optional<KeptFile> m_file; ///< open only while held
    std::optional<PolicyWatch> m_policy;
    std::optional<settings::SettingsSnapshot> m_snapshot;
    std::uint64_t m_revision = 0;
    std::optional<settings::Replacement> m_note; ///< its rows are counted for the snapshot's
    settings::SettingsSnapshot m_singles;        ///< as last read; its lists are empty
    std::string m_trouble;
    std::int64_t m_version = 0;
    bool m_isPending = false;    ///< the lists may be others than the snapshot's
    bool m_isJustOpened = false; ///< nothing is known of the file yet
    bool m_isTold = false;       ///< the daemon told of a change, and nothing was committed since
    int m_failures = 0;          ///< of reading, one after the other
    Time m_restsSince;           ///< the last change of the file, or the last event
    Time m_pendingSince;
    Time m_tryAgainAt;                     ///< after a file that could not be read
    std::optional<FileStamp> m_unreadable; ///< the file that could not be read
    Time m_checkAt;
    Time m_progressAgainAt;
};

} // namespace Sentrel::keeper
