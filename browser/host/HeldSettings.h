// The settings as the host has them.
#pragma once

#include "browser/decision/PageDecision.h"
#include "platform/settings/SettingsSnapshot.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace Sentrel::host {

/// Settings that decide. Never change once they are made. Threads: any. Owner: whoever holds the last pointer.
struct WholeSettings {
    /// Requires that the snapshot has values.
    explicit WholeSettings(const settings::SettingsSnapshot& snapshot)
        : readAt(snapshot.readAt), numbers(snapshot.numbers), policy(snapshot.policy), rules(snapshot) {}

    std::int64_t readAt; ///< microseconds since the epoch
    std::map<std::string, std::int32_t> numbers;
    std::optional<settings::MachinePolicy> policy; ///< none: not known
    browsing::PageRules rules;
};

/// Where the settings come from. Threads: a plain value. Owner: the holder.
struct HeldSettings {
    enum class State {
        Waiting, ///< there are none yet
        Current, ///< those of the hub
        Kept,    ///< the last whole ones; the hub does not give any
    };

    State state = State::Waiting;
    std::string because = "the hub has not been asked yet"; ///< why they are not current
    std::shared_ptr<const WholeSettings> whole{};           ///< null exactly while waiting

    bool operator==(const HeldSettings&) const = default;
};

} // namespace Sentrel::host
