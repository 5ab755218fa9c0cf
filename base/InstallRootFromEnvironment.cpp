#include "base/InstallRoot.h"

#include <cstdlib>

namespace Sentrel {

const std::string& installRoot() {
    static const std::string root = [] {
        const char* value = std::getenv("SENTREL_INSTALL_ROOT");
        return std::string(value != nullptr ? value : "");
    }();
    return root;
}

bool coreDumpsAllowed() noexcept {
    return std::getenv("SENTREL_CORE_DUMPS") != nullptr;
}

} // namespace Sentrel
