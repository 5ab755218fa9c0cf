// When are the lists whole?
//
// The daemon empties a table and writes its rows one by one, each committed by itself, and tells the hub when it is
// done. `data_version` tells that something was committed, not what. So after a change the lists are pending: what is
// served stays, until one of these says that the file is whole again:
// - the daemon's event, which it sends when the last row is written. It may be the event of another client's change
//   while rows are still written, so nothing may be committed for a moment after it;
// - rest: nothing was committed for kQuiet. Some changes come without an event, and events can be lost;
// - the daemon's end. Nobody writes the missing rows any more, and what is there is what its next start reads. When it
//   ended in the midst of a change and the lists are others than before, they are marked as short, until they change
//   again.
// The single values are written by one statement each: they are whole at any time, and are read at once.
//
// Lists that are pending and turn out to be equal to what is served are not pending: what was committed was a single
// value. Those that differ for a while are said to be changing.
//
// What must stay so: the version is taken before what is read, so that no change is overlooked; no read transaction is
// open between two looks; the file is closed before the hold on it is given up. A lock of another process is no reason
// to forget anything: the next look tries again.
#include "apps/settings-keeper/SettingsWatch.h"

#include "apps/settings-keeper/KeeperLimits.h"
#include "base/PrintableText.h"

#include <fmt/format.h>

#include <algorithm>
#include <exception>
#include <system_error>
#include <utility>

namespace Sentrel::keeper {
namespace {

using settings::SettingsSnapshot;
using settings::SnapshotState;

constexpr const char* kShortReason = "the daemon ended while a list was replaced; set that list again";

std::int64_t microsecondsNow() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

bool isLocked(const DatabaseError& error) {
    return error.code() == SQLITE_BUSY || error.code() == SQLITE_LOCKED;
}

std::string explain(const std::string& path, const DatabaseError& error) {
    if (error.systemError() == ENOENT) {
        return fmt::format("there is no {}: make it with 'sentrelctl settings init'", path);
    }
    return text::printable(fmt::format("{}: {}", path, error.what()));
}

} // namespace

SettingsWatch::SettingsWatch(std::string path, std::optional<PolicyWatch> policy)
    : m_path(std::move(path)), m_hold(m_path), m_policy(std::move(policy)) {}

/// Runs what needs the open file, after a look. What it throws closes the file.
template <class Work>
void SettingsWatch::guarded(Time now, const Work& work) {
    try {
        m_trouble.clear();
        lookAtPolicy();
        if (holdFile(now) && openFile(now)) {
            lookInto(now);
            work();
        }
    } catch (const DatabaseError& error) {
        noteFailure(error, now);
    } catch (const std::exception& error) {
        m_file.reset();
        serveNothing(text::printable(error.what()), now);
    }
}

/// What fails once may be a file that is just being moved. What fails twice is told.
void SettingsWatch::noteFailure(const DatabaseError& error, Time now) {
    if (isLocked(error)) {
        m_trouble = fmt::format("another process holds {}; try again", m_path);
        return;
    }
    m_file.reset();
    const std::string why = explain(m_path, error);
    if (++m_failures == 1 && error.systemError() != ENOENT) {
        m_trouble = why;
        return;
    }
    m_unreadable = stampOf(m_path);
    serveNothing(why, now);
}

/// @return whether the file is this process's to open.
bool SettingsWatch::holdFile(Time /*now*/) {
    if (m_hold.isAskedFor()) {
        letGo();
    }
    if (!m_hold.take()) {
        m_trouble = fmt::format("{} is being converted or repaired; try again when that is done", m_path);
        return false;
    }
    return true;
}

void SettingsWatch::letGo() noexcept {
    m_file.reset();
    m_unreadable.reset();
    m_hold.letGo();
}

/// @return false when a file that could not be read is not to be tried yet.
bool SettingsWatch::openFile(Time now) {
    if (m_file && !m_file->isInPlace()) {
        m_file.reset();
    }
    if (m_file) {
        return true;
    }
    if (now < m_tryAgainAt && m_unreadable == stampOf(m_path)) {
        return false;
    }
    KeptFile opened(m_path);
    m_version = opened.version() - 1;  // another one, so that everything is read
    m_file.emplace(std::move(opened)); // nothing that throws behind it: an open file is one that is known to be new
    m_unreadable.reset();
    m_isJustOpened = true;
    m_checkAt = now;
    return true;
}

void SettingsWatch::lookInto(Time now) {
    const std::int64_t version = m_file->version();
    if (version != m_version) {
        readSingles();
        m_version = version;
        m_restsSince = now;
        m_isTold = false;
        m_pendingSince = m_isPending ? m_pendingSince : now;
        m_isPending = true;
    }
    if (m_isPending && now - m_restsSince >= quiet()) {
        settle(false);
    }
}

void SettingsWatch::readSingles() {
    SettingsSnapshot singles;
    m_file->readSingles(singles);
    singles.readAt = microsecondsNow();
    m_singles = std::move(singles);
    if (!m_snapshot || m_isJustOpened) {
        return;
    }
    m_snapshot->readAt = m_singles.readAt;
    if (m_snapshot->numbers != m_singles.numbers || m_snapshot->unreadable != m_singles.unreadable ||
        m_snapshot->proxy != m_singles.proxy) {
        m_snapshot->numbers = m_singles.numbers;
        m_snapshot->unreadable = m_singles.unreadable;
        m_snapshot->proxy = m_singles.proxy;
        ++m_revision;
    }
}

void SettingsWatch::lookAtPolicy() {
    if (m_policy && m_policy->look() && m_snapshot) {
        m_snapshot->policy = m_policy->policy();
        ++m_revision;
    }
}

/// Whether the lists of the file are those of the snapshot. Then nothing is pending.
bool SettingsWatch::areListsServed() {
    SettingsSnapshot lists;
    m_file->readLists(lists);
    m_isPending = !m_snapshot->hasListsOf(lists);
    return !m_isPending;
}

void SettingsWatch::setChanging(bool isChanging) {
    m_revision += m_snapshot->isChanging != isChanging ? 1U : 0U;
    m_snapshot->isChanging = isChanging;
}

std::chrono::milliseconds SettingsWatch::quiet() const {
    return m_isJustOpened ? kQuietAfterOpening : m_isTold ? kQuietAfterEvent : kQuiet;
}

/// Makes what is in the file the snapshot.
void SettingsWatch::settle(bool isShort) {
    SettingsSnapshot lists;
    m_file->readLists(lists);
    SettingsSnapshot next = m_singles;
    next.check = m_snapshot ? m_snapshot->check : std::nullopt;
    const bool isKnown = m_snapshot && m_snapshot->state != SnapshotState::None;
    const bool differs = !isKnown || !m_snapshot->hasListsOf(lists);
    next.state = isKnown && !differs ? m_snapshot->state : SnapshotState::Whole;
    if (isShort && isKnown && differs) {
        next.state = SnapshotState::Short;
    }
    next.reason = next.state == SnapshotState::Short ? kShortReason : "";
    next.categories = std::move(lists.categories);
    next.allowBlock = std::move(lists.allowBlock);
    next.privateRanges = std::move(lists.privateRanges);
    serve(std::move(next));
    m_isPending = false;
    m_isJustOpened = false;
    m_isTold = false;
    m_failures = 0;
    m_note.reset();
}

void SettingsWatch::serve(SettingsSnapshot&& next) {
    next.policy = m_policy ? m_policy->policy() : std::nullopt;
    if (m_snapshot) {
        m_snapshot->readAt = next.readAt; // alone it is no news
    }
    if (m_snapshot != next) {
        m_snapshot = std::move(next);
        ++m_revision;
    }
}

void SettingsWatch::serveNothing(const std::string& why, Time now) {
    m_tryAgainAt = now + kTroublePause;
    SettingsSnapshot none;
    none.readAt = microsecondsNow();
    none.reason = why;
    serve(std::move(none));
    m_isPending = false;
}

std::chrono::milliseconds SettingsWatch::untilNextLook() const {
    return m_isPending && m_isTold ? kQuietAfterEvent : kBetweenLooks;
}

void SettingsWatch::look(Time now) {
    guarded(now, [this, now] {
        const bool isLong = now - m_pendingSince >= kChangeToTell;
        if (m_isPending && !m_isJustOpened && !m_snapshot->isChanging && isLong) {
            setChanging(!areListsServed());
        }
        followReplacement(now);
    });
}

/// How far the list is that somebody replaces. A note without a change says nothing yet.
void SettingsWatch::followReplacement(Time now) {
    if (!m_snapshot || m_isJustOpened) {
        return;
    }
    std::optional<settings::Replacement> next;
    if (m_note && m_isPending) {
        if (m_snapshot->replacement && m_snapshot->replacement->list == m_note->list &&
            m_snapshot->replacement->of == m_note->of && now < m_progressAgainAt) {
            return;
        }
        next = *m_note;
        next->stored = m_file->rowsOf(next->list);
        const std::size_t entries =
            m_snapshot->categories.size() + m_snapshot->allowBlock.size() + m_snapshot->privateRanges.size();
        m_progressAgainAt = now + std::chrono::milliseconds(entries * 1000 / kProgressEntries);
    }
    m_revision += m_snapshot->replacement != next ? 1U : 0U;
    m_snapshot->replacement = next;
}

void SettingsWatch::note(std::optional<settings::Replacement> replacement, Time now) {
    m_note = std::move(replacement);
    look(now);
}

void SettingsWatch::daemonTold(Time now) {
    guarded(now, [this, now] {
        if (m_isPending) {
            m_isTold = true;
            m_restsSince = now;
        }
    });
}

void SettingsWatch::daemonChanged(Time now) {
    guarded(now, [this] {
        if (m_isPending) {
            settle(!m_isJustOpened);
        }
    });
}

bool SettingsWatch::compare(Time now) {
    guarded(now, [this] {
        if (m_isPending && !m_isJustOpened && areListsServed()) {
            setChanging(false);
        }
    });
    return isSettled();
}

void SettingsWatch::checkWhenDue(Time now) {
    if (now < m_checkAt || !m_file || m_isPending) {
        return;
    }
    m_checkAt = now + kBetweenChecks;
    guarded(now, [this] {
        if (m_snapshot && m_snapshot->state != SnapshotState::None) {
            const std::string trouble = m_file->check();
            m_snapshot->check = settings::FileCheck{microsecondsNow(), trouble};
            ++m_revision;
        }
    });
}

} // namespace Sentrel::keeper
