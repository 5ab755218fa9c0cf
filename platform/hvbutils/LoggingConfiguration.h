// What a module's configuration file says of its logging: the one set of rules for everybody but the module itself,
// which reads it through LibXmlWrapper. A test holds the two against each other.
#pragma once

#include "platform/hvbutils/XmlFile.h"

#include <string>
#include <string_view>

namespace HVB {

/// What LogLevel can be, by its word to the letter, blanks included.
enum class LogLevelWord {
    Error,
    Warning,
    Information,
    Debugging, ///< "debug", "verbose", "audit" or "alert"
    Unknown,   ///< any other text
};

/// The meaning of a LogLevel's text.
LogLevelWord meaningOf(std::string_view level);

/// The logging of a module as its file has it.
struct LoggingConfiguration {
    bool isEnabled = true;                          ///< SyslogEnable
    std::string text = {};                          ///< of LogLevel; empty when it is not enabled
    LogLevelWord level = LogLevelWord::Information; ///< what the text means

    /// Whether the module's debug logging is on.
    bool isDebugging() const { return isEnabled && level == LogLevelWord::Debugging; }
};

/// Opens a module's file for another user than the module's. It can be a link, as for the module, but only to a file
/// that every user may read.
/// @throws LibXmlError as XmlFile does.
XmlFile openModuleConfiguration(const std::string& path);

/// What @p file says. SyslogEnable is one truth value (XmlFile::truthAt). Unless it is false, LogLevel is one text;
/// when it is false, LogLevel may be anything, or missing.
/// @throws LibXmlError when it says something else. The module cannot use the file then.
LoggingConfiguration loggingIn(const XmlFile& file);

} // namespace HVB
