#include "platform/hvbutils/LoggingConfiguration.h"

#include <array>
#include <utility>

namespace HVB {

LogLevelWord meaningOf(std::string_view level) {
    static constexpr std::array<std::pair<std::string_view, LogLevelWord>, 7> words{{
        {"error", LogLevelWord::Error},
        {"warning", LogLevelWord::Warning},
        {"information", LogLevelWord::Information},
        {"debug", LogLevelWord::Debugging},
        {"verbose", LogLevelWord::Debugging},
        {"audit", LogLevelWord::Debugging},
        {"alert", LogLevelWord::Debugging},
    }};
    for (const auto& [word, meaning] : words) {
        if (level == word) {
            return meaning;
        }
    }
    return LogLevelWord::Unknown;
}

XmlFile openModuleConfiguration(const std::string& path) {
    return XmlFile(path, XmlFile::Links::FollowToPublic);
}

LoggingConfiguration loggingIn(const XmlFile& file) {
    if (!file.truthAt("/HVConfiguration/SyslogEnable")) {
        return {.isEnabled = false}; // the module looks no further then
    }
    std::string text = file.textAt("/HVConfiguration/LogLevel");
    const LogLevelWord level = meaningOf(text);
    return {.isEnabled = true, .text = std::move(text), .level = level};
}

} // namespace HVB
