// The user's copy of the last settings, for a start while the hub is away.
#pragma once

#include "platform/settings/SettingsSnapshot.h"

#include <optional>
#include <string>

namespace Sentrel::host {

/// Where this user's copy lies: sentrel/settings in $XDG_CACHE_HOME when that is an absolute path, else in ~/.cache.
/// Empty when the user has no home. Threads: while nobody changes the environment.
std::string settingsCachePath();

/// A file of this user's alone. Its content is a snapshot's text with what decides, and no proxy.
/// Threads: one at a time. Owner: the holder.
class SettingsCache {
public:
    /// @param path empty: nothing is kept.
    explicit SettingsCache(std::string path) : m_path(std::move(path)) {}

    /// What is there; none when there is no file. @throws std::runtime_error when it is not to be used: it cannot be
    /// read, others may have written it, or it is no snapshot.
    std::optional<settings::SettingsSnapshot> read() const;

    /// Puts @p snapshot in its place in one step. While another process of the user does the same, nothing happens.
    /// @throws std::runtime_error when that fails; what was there stays.
    void write(const settings::SettingsSnapshot& snapshot) const;

    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

/// What of @p snapshot decides and is kept: no proxy, and nothing of the moment at which it was read but the time.
settings::SettingsSnapshot whatDecides(const settings::SettingsSnapshot& snapshot);

} // namespace Sentrel::host
