#include "apps/hvbd/ModuleConfiguration.h"

#include "platform/hvbutils/XmlFile.h"

#include <fmt/format.h>

#include <array>
#include <utility>

namespace HVB::hub {
namespace {

constexpr const char* kOutermost = "/HVConfiguration";
constexpr const char* kSwitch = "/HVConfiguration/SyslogEnable";
constexpr const char* kLevel = "/HVConfiguration/LogLevel";

// Several words mean the last level. The first of a level's words is the one that is shown.
constexpr std::array<std::pair<std::string_view, hv_logLevel_enum>, 7> kLevels{{
    {"error", LOG_LEVEL_ERROR},
    {"warning", LOG_LEVEL_WARNING},
    {"information", LOG_LEVEL_INFORMATION},
    {"debug", LOG_LEVEL_DEBUG},
    {"verbose", LOG_LEVEL_DEBUG},
    {"audit", LOG_LEVEL_DEBUG},
    {"alert", LOG_LEVEL_DEBUG},
}};

[[noreturn]] void refuse(const std::string& path, const std::string& why) {
    throw ConfigurationError(fmt::format("{}: {}", path, why));
}

/// The word must stand alone, without blanks: the module compares it that way, and both must read the same from the
/// file.
hv_logLevel_enum levelOf(const std::string& word, const std::string& path) {
    for (const auto& [known, level] : kLevels) {
        if (word == known) {
            return level;
        }
    }
    refuse(path, fmt::format("LogLevel is \"{}\" and not one of the known levels", word));
}

} // namespace

std::string_view levelWord(hv_logLevel_enum wanted) {
    for (const auto& [word, level] : kLevels) {
        if (level == wanted) {
            return word;
        }
    }
    return "unknown";
}

ModuleConfiguration readModuleConfiguration(const std::string& path) {
    ModuleConfiguration configuration;
    try {
        // The module's user writes this file, and must not make hvbd read another one.
        const XmlFile file(path, XmlFile::Links::Refuse);
        if (!file.finds(kOutermost)) {
            refuse(path, "the outermost element is not HVConfiguration");
        }
        if (file.finds(kSwitch)) {
            configuration.syslogEnabled = file.truthAt(kSwitch);
        }
        if (file.finds(kLevel)) {
            configuration.level = levelOf(file.textAt(kLevel), path);
        }
    } catch (const LibXmlError& error) {
        throw ConfigurationError(error.what());
    }
    return configuration;
}

ModuleConfiguration ModuleConfigurations::reload(int moduleId) {
    const auto file = m_files.find(moduleId);
    if (file == m_files.end()) {
        throw ConfigurationError(fmt::format("module {} has no configuration that hvbd knows", moduleId));
    }
    // When two reloads run at once, the content that was read later stays. The loop, which asks for each line, waits
    // for neither.
    const Sentrel::MutexLock oneAtATime(m_reloading);
    const ModuleConfiguration configuration = readModuleConfiguration(file->second);
    const Sentrel::MutexLock lock(m_mutex);
    m_inForce[moduleId] = configuration;
    return configuration;
}

ModuleConfiguration ModuleConfigurations::of(int moduleId) const {
    const Sentrel::MutexLock lock(m_mutex);
    const auto found = m_inForce.find(moduleId);
    return found != m_inForce.end() ? found->second : ModuleConfiguration{};
}

} // namespace HVB::hub
