// Which of a module's log lines are wanted: its configuration file, read at start and on the reload command.
#pragma once

#include "base/Mutex.h"
#include "hub/HubIds.h"

#include <map>
#include <stdexcept>
#include <string>
#include <string_view>

namespace HVB::hub {

/// The word for a level.
std::string_view levelWord(hv_logLevel_enum level);

/// What a module's configuration says about its log lines. The defaults hold when there is no file.
struct ModuleConfiguration {
    bool syslogEnabled = true;
    hv_logLevel_enum level = LOG_LEVEL_INFORMATION;

    bool wants(hv_logLevel_enum lineLevel) const { return syslogEnabled && lineLevel <= level; }
    bool operator==(const ModuleConfiguration&) const = default;
};

/// A configuration file that cannot be used; the text says which and why.
class ConfigurationError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Reads the regular file at @p path, within the bounds of XmlFile. An element that is not there has its default.
/// SyslogEnable is "true" or "false"; LogLevel is "error", "warning", "information" or one of "debug", "verbose",
/// "audit" and "alert", which all let every line through.
/// @throws ConfigurationError for anything else, for an element that is there twice, and for a symbolic link.
ModuleConfiguration readModuleConfiguration(const std::string& path);

/// The configurations in force.
/// Threads: thread-safe. Owner: the program.
class ModuleConfigurations {
public:
    /// @param files where each module that has a configuration keeps it.
    explicit ModuleConfigurations(std::map<int, std::string> files) : m_files(std::move(files)) {}

    /// Reads a module's file again. What was in force stays when this throws.
    /// @throws ConfigurationError when the module has no file here, or it cannot be used.
    ModuleConfiguration reload(int moduleId);

    /// The configuration in force; the default for a module that was never loaded.
    ModuleConfiguration of(int moduleId) const;

private:
    // Constant after construction.
    const std::map<int, std::string> m_files;
    // Held from reading a file to taking it over, and never by who asks for what is in force.
    Sentrel::Mutex m_reloading;

    mutable Sentrel::Mutex m_mutex;
    std::map<int, ModuleConfiguration> m_inForce SENTREL_GUARDED_BY(m_mutex);
};

} // namespace HVB::hub
