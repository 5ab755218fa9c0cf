// Which of a module's log lines are wanted, by its configuration file, and whether the module can use that file.
#pragma once

#include "base/FileStamp.h"
#include "base/Mutex.h"
#include "hub/HubIds.h"

#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace HVB::hub {

/// The word for a level.
std::string_view levelWord(hv_logLevel_enum level);

/// What a module's configuration says about its log lines. The defaults hold when there is no file.
struct ModuleConfiguration {
    bool syslogEnabled = true;
    hv_logLevel_enum level = LOG_LEVEL_INFORMATION;
    /// The text of LogLevel when it is no level, printable and short. The default level holds then.
    std::optional<std::string> noLevel = std::nullopt;

    bool wants(hv_logLevel_enum lineLevel) const { return syslogEnabled && lineLevel <= level; }
    /// For the system log.
    std::string description() const;
    bool operator==(const ModuleConfiguration&) const = default;
};

/// A configuration file that cannot be used; the text says which and why.
class ConfigurationError : public std::runtime_error {
public:
    explicit ConfigurationError(const std::string& reason) : std::runtime_error(reason), m_reason(reason) {}
    ConfigurationError(const std::string& path, const std::string& reason)
        : std::runtime_error(path + ": " + reason), m_reason(reason) {}

    /// The text without the file's name, on one printable line.
    const std::string& reason() const { return m_reason; }

private:
    std::string m_reason;
};

/// Reads the file at @p path by the rules of LoggingConfiguration.h. A text that is no level leaves the default level.
/// @throws ConfigurationError when the module cannot use the file either.
ModuleConfiguration readModuleConfiguration(const std::string& path);

/// The configurations in force, and what is wrong with the files as they are now.
/// A file is in force from a reload on. Whether its module can use it is found out at each reload and each look, and
/// told when that changes.
/// Threads: thread-safe. Owner: the program.
class ModuleConfigurations {
public:
    /// Takes a line for the system log. Called by the thread that met the news, under a lock: it must not come back
    /// here.
    using Tell = std::function<void(int priority, const std::string& line)>;

    /// @param files where each module that has a configuration keeps it.
    explicit ModuleConfigurations(std::map<int, std::string> files, Tell tell = {})
        : m_files(std::move(files)), m_tell(std::move(tell)) {}

    /// Reads a module's file again. What was in force stays when this throws.
    /// @throws ConfigurationError when the module has no file here, or it cannot be used.
    ModuleConfiguration reload(int moduleId);

    /// Looks at a module's file, and reads it unless it is known to be as it was. What is in force stays.
    /// @return why the module cannot use the file as it is now, on one printable line; empty when it can, and for a
    /// module without a file here.
    std::string look(int moduleId);

    /// Looks at the files of all modules.
    void lookAtAll();

    /// The configuration in force; the default for a module that was never loaded.
    ModuleConfiguration of(int moduleId) const;

    /// The modules that have a file here.
    std::vector<int> modules() const;

private:
    /// What the last reading of a file came to.
    struct Reading {
        std::optional<Sentrel::FileStamp> stamp; ///< set when a file with this stamp needs no further reading
        std::string problem;                     ///< empty when there is none
    };

    ModuleConfiguration read(int moduleId, const std::string& path) SENTREL_REQUIRES(m_reading);
    void note(int moduleId, const std::string& path, const std::string& problem) SENTREL_REQUIRES(m_reading);

    // Constant after construction.
    const std::map<int, std::string> m_files;
    const Tell m_tell;

    // Held from reading a file to taking it over, and never by who asks for what is in force.
    Sentrel::Mutex m_reading;
    std::map<int, Reading> m_readings SENTREL_GUARDED_BY(m_reading);

    mutable Sentrel::Mutex m_mutex;
    std::map<int, ModuleConfiguration> m_inForce SENTREL_GUARDED_BY(m_mutex);
};

} // namespace HVB::hub
