// Feeds a configuration file to its reader, and changes what reads as one: a change gives exactly the new text, and
// leaves every other byte as it was, since changing it back gives the old file.
#include "fuzz/Require.h"
#include "platform/hvbutils/ConfigurationLimits.h"
#include "platform/hvbutils/XmlFile.h"

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>

namespace {

using fuzz::require;

constexpr const char* kLevel = "/HVConfiguration/LogLevel";
constexpr const char* kNewLevel = "debug & \"<verbose>\"";

/// A directory in memory for this process.
const std::string& file() {
    static const std::string path = [] {
        char name[] = "/dev/shm/fuzz.XXXXXX";
        require(mkdtemp(name) != nullptr);
        static const std::string directory = name;
        require(std::atexit([] { std::filesystem::remove_all(directory); }) == 0);
        return directory + "/HVConfig.xml";
    }();
    return path;
}

std::string content() {
    std::ifstream stream(file(), std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

std::optional<std::string> level() {
    try {
        return XmlFile(file()).textAt(kLevel);
    } catch (const LibXmlError&) {
        return std::nullopt;
    }
}

/// Sets the level and saves. @return false when the library refuses to, as it may with another encoding alone.
bool change(const std::string& value) {
    try {
        XmlFile configuration(file());
        configuration.setTextAt(kLevel, value.c_str());
        require(configuration.textAt(kLevel) == value);
        require(configuration.saveTo(file().c_str()));
        return true;
    } catch (const LibXmlError& error) {
        require(std::string_view(error.what()).find("only UTF-8 can be changed") != std::string_view::npos);
        return false;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::ofstream(file(), std::ios::binary) << std::string(data, data + size);
    const std::optional<std::string> before = level();
    if (!before || !change(kNewLevel)) {
        return 0;
    }
    require(level() == kNewLevel);
    const std::string changed = content();
    if (change(*before)) {
        require(level() == *before);
        require(change(kNewLevel));
        require(content() == changed);
    }
    return 0;
}
