// Configuration files of the module that somebody may have written, with what each must come to. The daemon, hvbd and
// the doctor are held against this one table.
#pragma once

#include <filesystem>
#include <fstream>
#include <ostream>
#include <string>
#include <vector>

namespace testing_support {

/// One file, and what everybody must make of it.
struct ConfigurationFile {
    const char* name;
    std::string text;    ///< written unless what is there is a link, or nothing
    bool isUsable;       ///< by the daemon
    bool isDebugging;    ///< the daemon's debug logging
    const char* inForce; ///< what hvbd says is in force once it has read it; empty when it cannot be used
    const char* reason;  ///< why it cannot be used, without the file's name; empty when it can
    enum class Kind { File, Missing, Link, DanglingLink, Directory } kind = Kind::File;

    friend void PrintTo(const ConfigurationFile& file, std::ostream* out) { *out << file.name; }
};

/// Puts @p file at @p path, in the place of what is there.
inline void lay(const ConfigurationFile& file, const std::string& path) {
    namespace fs = std::filesystem;
    using Kind = ConfigurationFile::Kind;
    fs::remove_all(path);
    const std::string target = path + ".target";
    fs::remove(target);
    switch (file.kind) {
    case Kind::File:
        std::ofstream(path) << file.text;
        return;
    case Kind::Link:
        std::ofstream(target) << file.text;
        fs::create_symlink(target, path);
        return;
    case Kind::DanglingLink:
        fs::create_symlink(target, path);
        return;
    case Kind::Directory:
        fs::create_directory(path);
        return;
    case Kind::Missing:
        return;
    }
}

/// A file of seven lines with these elements on the second and the third.
inline std::string documentWith(const std::string& second, const std::string& third) {
    return "<HVConfiguration>\n" + second + "\n" + third +
           "\n<BuildNumber>1</BuildNumber><HVVersion>2</HVVersion>\n<PatchVersion>3</PatchVersion>\n"
           "<ServicePack>4</ServicePack><Hotfixes>5</Hotfixes>\n</HVConfiguration>\n";
}

inline std::vector<ConfigurationFile> configurationFiles() {
    using Kind = ConfigurationFile::Kind;
    const std::string on = "<SyslogEnable>true</SyslogEnable>";
    const std::string off = "<SyslogEnable>false</SyslogEnable>";
    const std::string debug = "<LogLevel>debug</LogLevel>";
    constexpr const char* atDebug = "syslog on, level debug";
    constexpr const char* isOff = "syslog off, level information";
    return {
        // The nine over which the readers were divided, or might be.
        {"without the switch", documentWith("", debug), false, false, "",
         "/HVConfiguration/SyslogEnable: finds nothing, line 7"},
        {"without the level", documentWith(on, ""), false, false, "",
         "/HVConfiguration/LogLevel: finds nothing, line 7"},
        {"level in another case", documentWith(on, "<LogLevel>Debug</LogLevel>"), true, false,
         "syslog on, level information by default, since LogLevel is \"Debug\"", ""},
        {"level with blanks", documentWith(on, "<LogLevel> debug </LogLevel>"), true, false,
         "syslog on, level information by default, since LogLevel is \" debug \"", ""},
        {"empty level", documentWith(on, "<LogLevel/>"), true, false,
         "syslog on, level information by default, since LogLevel is \"\"", ""},
        {"switch in another case", documentWith("<SyslogEnable>TRUE</SyslogEnable>", debug), false, false, "",
         "/HVConfiguration/SyslogEnable: \"TRUE\" is neither true nor false, line 2"},
        {"level twice", documentWith(on, debug + "\n" + debug), false, false, "",
         "/HVConfiguration/LogLevel: finds several, line 4"},
        {"a link", documentWith(on, debug), true, true, atDebug, "", Kind::Link},
        {"off without the level", documentWith(off, ""), true, false, isOff, ""},
        // What they agreed on, and must go on to.
        {"as it is shipped", documentWith(on, "<LogLevel>information</LogLevel>"), true, false,
         "syslog on, level information", ""},
        {"for debugging", documentWith(on, debug), true, true, atDebug, ""},
        {"verbose", documentWith(on, "<LogLevel>verbose</LogLevel>"), true, true, atDebug, ""},
        {"audit", documentWith(on, "<LogLevel>audit</LogLevel>"), true, true, atDebug, ""},
        {"alert", documentWith(on, "<LogLevel>alert</LogLevel>"), true, true, atDebug, ""},
        {"warnings", documentWith(on, "<LogLevel>warning</LogLevel>"), true, false, "syslog on, level warning", ""},
        {"errors", documentWith(on, "<LogLevel>error</LogLevel>"), true, false, "syslog on, level error", ""},
        {"off with debug", documentWith(off, debug), true, false, isOff, ""},
        {"off with two levels", documentWith(off, debug + debug), true, false, isOff, ""},
        {"switch as a number", documentWith("<SyslogEnable> 1\n</SyslogEnable>", debug), true, true, atDebug, ""},
        {"switch that is a word", documentWith("<SyslogEnable>yes</SyslogEnable>", debug), false, false, "",
         "/HVConfiguration/SyslogEnable: \"yes\" is neither true nor false, line 2"},
        {"switch twice", documentWith(on + on, debug), false, false, "",
         "/HVConfiguration/SyslogEnable: finds several, line 2"},
        {"element in the level", documentWith(on, "<LogLevel>\n<b>debug</b></LogLevel>"), false, false, "",
         "/HVConfiguration/LogLevel: holds more than a text, line 4"},
        {"other root", "<Configuration>" + on + debug + "</Configuration>", false, false, "",
         "/HVConfiguration/SyslogEnable: finds nothing"},
        {"empty", "", false, false, "", "line 1: Document is empty"},
        {"no XML", "LogLevel=debug\n", false, false, "", "line 1: Start tag expected, '<' not found"},
        {"cut off", "<HVConfiguration>\n" + on, false, false, "",
         "line 2: Premature end of data in tag HVConfiguration line 1"},
        {"a document type", "<!DOCTYPE a>\n" + documentWith(on, debug), false, false, "",
         "a document type is not allowed here"},
        {"too large", documentWith(on, debug + std::string(65536, ' ')), false, false, "", "larger than 65536 bytes"},
        {"missing", "", false, false, "", "No such file or directory", Kind::Missing},
        {"a link to nothing", "", false, false, "", "No such file or directory", Kind::DanglingLink},
        {"a directory", "", false, false, "", "not a regular file", Kind::Directory},
    };
}

} // namespace testing_support
