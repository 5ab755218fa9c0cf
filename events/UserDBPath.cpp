#include "daemon/Paths.h"
#include "events/NPlgHelper.h"

#include <cstring>

namespace NPlgHelper {

bool GetUserDBPath(char* buffer, unsigned long /*size*/) {
    const std::string path = Sentrel::paths::settingsFile();
    std::memcpy(buffer, path.c_str(), path.size() + 1);
    return true;
}

} // namespace NPlgHelper
