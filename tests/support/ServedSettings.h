// What hvbd serves of the settings, as any client reads it.
#pragma once

#include "platform/settings/SettingsSnapshot.h"

#include <cstdint>
#include <string>

namespace testing_support {

/// An answer of Settings. Threads: a plain value. Owner: the test.
struct ServedSettings {
    std::uint64_t generation = 0;
    Sentrel::settings::SettingsSnapshot snapshot;
};

/// Asks over a connection of its own. @throws CallError, and SnapshotError for a text that is none.
ServedSettings servedSettings(const std::string& socketPath, bool fresh = false);

/// Asks until hvbd has been given settings. @throws std::runtime_error when it is not in time.
ServedSettings awaitSettings(const std::string& socketPath);

/// Whether both name the same rows, in any order.
bool haveSameUrls(const Sentrel::settings::SettingsSnapshot& one, const Sentrel::settings::SettingsSnapshot& other);

} // namespace testing_support
