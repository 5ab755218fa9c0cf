#include "apps/hvbd/ModuleConfiguration.h"

#include "apps/hvbd/HvbdLimits.h"
#include "base/PrintableText.h"
#include "platform/hvbutils/LoggingConfiguration.h"

#include <fmt/format.h>
#include <syslog.h>

#include <utility>

namespace HVB::hub {
namespace {

hv_logLevel_enum levelFor(LogLevelWord word) {
    switch (word) {
    case LogLevelWord::Error:
        return LOG_LEVEL_ERROR;
    case LogLevelWord::Warning:
        return LOG_LEVEL_WARNING;
    case LogLevelWord::Debugging:
        return LOG_LEVEL_DEBUG;
    case LogLevelWord::Information:
    case LogLevelWord::Unknown:
        break;
    }
    return ModuleConfiguration().level;
}

ModuleConfiguration configurationFrom(const LoggingConfiguration& logging) {
    ModuleConfiguration configuration{.syslogEnabled = logging.isEnabled, .level = levelFor(logging.level)};
    if (logging.level == LogLevelWord::Unknown) {
        configuration.noLevel = Sentrel::text::shortened(Sentrel::text::printable(logging.text), kMaxQuotedLevelBytes);
    }
    return configuration;
}

} // namespace

std::string_view levelWord(hv_logLevel_enum level) {
    switch (level) {
    case LOG_LEVEL_ERROR:
        return "error";
    case LOG_LEVEL_WARNING:
        return "warning";
    case LOG_LEVEL_INFORMATION:
        return "information";
    case LOG_LEVEL_DEBUG:
        return "debug";
    }
    return "unknown";
}

std::string ModuleConfiguration::description() const {
    const std::string text = fmt::format("syslog {}, level {}", syslogEnabled ? "on" : "off", levelWord(level));
    return noLevel ? fmt::format("{} by default, since LogLevel is \"{}\"", text, *noLevel) : text;
}

ModuleConfiguration readModuleConfiguration(const std::string& path) {
    try {
        return configurationFrom(loggingIn(openModuleConfiguration(path)));
    } catch (const LibXmlError& error) {
        throw ConfigurationError(path, Sentrel::text::shortened(error.reason(), kMaxLogLineBytes));
    }
}

ModuleConfiguration ModuleConfigurations::reload(int moduleId) {
    const auto file = m_files.find(moduleId);
    if (file == m_files.end()) {
        throw ConfigurationError(fmt::format("module {} has no configuration that hvbd knows", moduleId));
    }
    // When two reloads run at once, the content that was read later stays. Who asks for what is in force waits for
    // neither.
    const Sentrel::MutexLock oneAtATime(m_reading);
    ModuleConfiguration configuration = read(moduleId, file->second);
    const Sentrel::MutexLock lock(m_mutex);
    m_inForce[moduleId] = configuration;
    return configuration;
}

std::string ModuleConfigurations::look(int moduleId) {
    const auto file = m_files.find(moduleId);
    if (file == m_files.end()) {
        return {};
    }
    const Sentrel::MutexLock oneAtATime(m_reading);
    const Reading& last = m_readings[moduleId];
    if (!last.stamp || Sentrel::stampOf(file->second) != last.stamp) {
        try {
            read(moduleId, file->second);
        } catch (const ConfigurationError&) {
            // It is noted.
        }
    }
    return last.problem;
}

void ModuleConfigurations::lookAtAll() {
    for (const auto& [moduleId, path] : m_files) {
        look(moduleId);
    }
}

/// Only a file that can be used is left unread while its stamp stays: what keeps it from being used may be elsewhere,
/// such as in the rights to its directory.
ModuleConfiguration ModuleConfigurations::read(int moduleId, const std::string& path) {
    const std::optional<Sentrel::FileStamp> stamp =
        Sentrel::stampOf(path); // before the content, so that a change meanwhile is seen
    m_readings[moduleId].stamp.reset();
    try {
        ModuleConfiguration configuration = readModuleConfiguration(path);
        note(moduleId, path, "");
        if (stamp && hasRested(*stamp)) {
            m_readings[moduleId].stamp = stamp;
        }
        return configuration;
    } catch (const ConfigurationError& error) {
        note(moduleId, path, error.reason());
        throw;
    }
}

void ModuleConfigurations::note(int moduleId, const std::string& path, const std::string& problem) {
    std::string& known = m_readings[moduleId].problem;
    if (problem == known) {
        return;
    }
    known = problem;
    if (m_tell && problem.empty()) {
        m_tell(LOG_NOTICE, fmt::format("module {} can use its configuration {} again", moduleId, path));
    } else if (m_tell) {
        m_tell(LOG_WARNING, fmt::format("module {} cannot use its configuration {}: {}", moduleId, path, problem));
    }
}

ModuleConfiguration ModuleConfigurations::of(int moduleId) const {
    const Sentrel::MutexLock lock(m_mutex);
    const auto found = m_inForce.find(moduleId);
    return found != m_inForce.end() ? found->second : ModuleConfiguration{};
}

std::vector<int> ModuleConfigurations::modules() const {
    std::vector<int> ids;
    for (const auto& [moduleId, path] : m_files) {
        ids.push_back(moduleId);
    }
    return ids;
}

} // namespace HVB::hub
