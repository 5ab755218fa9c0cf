#include "base/UserDBPath.h"
#include "base/Paths.h"

#include <cstddef>
#include <cstring>
#include <stdexcept>

namespace NPlgHelper {

bool GetUserDBPath(char* buffer, unsigned long /*size*/) {
    const std::string path = Sentrel::paths::settingsFile();
    // The fixed path is far below this; only an install root of the environment can be longer.
    constexpr std::size_t smallestBuffer = 128;
    if (path.size() >= smallestBuffer) {
        throw std::length_error("the install root is too long for the settings file's path");
    }
    std::memcpy(buffer, path.c_str(), path.size() + 1);
    return true;
}

} // namespace NPlgHelper
