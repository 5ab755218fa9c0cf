#include "browser/host/SettingsCache.h"

#include "base/FileReading.h"
#include "base/FileWriting.h"
#include "base/UniqueFd.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace Sentrel::host {
namespace {

namespace fs = std::filesystem;

std::string absoluteIn(const char* variable) {
    const char* const value = std::getenv(variable);
    return value != nullptr && *value == '/' ? value : "";
}

std::string homeDirectory() {
    const std::string home = absoluteIn("HOME");
    if (!home.empty()) {
        return home;
    }
    const passwd* const user = ::getpwuid(::geteuid());
    return user != nullptr && user->pw_dir != nullptr && *user->pw_dir == '/' ? user->pw_dir : "";
}

/// Makes the directories that are missing, for this user alone.
void makeDirectories(const fs::path& directory) {
    if (directory.empty() || fs::is_directory(directory)) {
        return;
    }
    makeDirectories(directory.parent_path());
    constexpr mode_t userAlone = 0700;
    if (::mkdir(directory.c_str(), userAlone) != 0 && errno != EEXIST) {
        throw std::system_error(errno, std::system_category(), directory.string());
    }
}

} // namespace

std::string settingsCachePath() {
    const std::string named = absoluteIn("XDG_CACHE_HOME");
    const std::string home = homeDirectory();
    const std::string caches = !named.empty() || home.empty() ? named : home + "/.cache";
    return caches.empty() ? "" : caches + "/sentrel/settings";
}

std::optional<settings::SettingsSnapshot> SettingsCache::read() const {
    if (m_path.empty()) {
        return std::nullopt;
    }
    try {
        settings::SettingsSnapshot snapshot = settings::snapshotOf(
            readRegularFile(m_path, settings::kMaxSnapshotBytes, FileAccess::OwnerAlone, Links::Refuse));
        if (snapshot.state == settings::SnapshotState::None) {
            throw std::runtime_error(m_path + ": it holds no settings");
        }
        return snapshot;
    } catch (const settings::SnapshotError& error) {
        throw std::runtime_error(m_path + ": " + error.what());
    } catch (const std::system_error& error) {
        if (error.code().value() == ENOENT) {
            return std::nullopt;
        }
        throw;
    }
}

void SettingsCache::write(const settings::SettingsSnapshot& snapshot) const {
    if (m_path.empty()) {
        return;
    }
    const std::string directory = fs::path(m_path).parent_path();
    makeDirectories(directory);
    const UniqueFd lock(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!lock.isOpen()) {
        throw std::system_error(errno, std::system_category(), directory);
    }
    if (::flock(lock.get(), LOCK_EX | LOCK_NB) == 0) {
        replaceFile(m_path, settings::textOf(whatDecides(snapshot)), Replace::AsPrivate);
    }
}

settings::SettingsSnapshot whatDecides(const settings::SettingsSnapshot& snapshot) {
    settings::SettingsSnapshot kept;
    kept.readAt = snapshot.readAt;
    kept.state = settings::SnapshotState::Whole;
    kept.policy = snapshot.policy;
    kept.numbers = snapshot.numbers;
    kept.unreadable = snapshot.unreadable;
    kept.categories = snapshot.categories;
    kept.allowBlock = snapshot.allowBlock;
    kept.privateRanges = snapshot.privateRanges;
    return kept;
}

} // namespace Sentrel::host
