// The configuration of the hub's bus: where it listens, who may do what, and its limits.
#pragma once

#include <string>

namespace HVB::bus {

/// What a site decides. Users are names or numeric ids; each must exist where the bus runs, since the bus skips a
/// section for a user or group that it cannot find.
struct BusConfigurationOptions {
    std::string socketPath;
    std::string daemonUser; ///< whom sentreld runs as: the only owner of module 7's name
    std::string hubUser;    ///< whom hvbd runs as: the only owner of module 1's and the hub's name
    std::string adminGroup; ///< whose members may send every command, read the log and ask for the health; empty: root
                            ///< alone may
};

/// The text of a dbus-daemon configuration file. The commands and who may send them come from Sentrel::kCommands.
/// Allow rules only: what no rule names is refused.
/// @throws std::invalid_argument when the path, the daemon's user or the hub's user is empty.
std::string busConfiguration(const BusConfigurationOptions& options);

/// Whether a group of this name exists here. Ask before naming it in the options.
bool groupExists(const std::string& name);

} // namespace HVB::bus
