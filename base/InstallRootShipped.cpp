#include "base/InstallRoot.h"

namespace Sentrel {

const std::string& installRoot() {
    static const std::string root;
    return root;
}

bool coreDumpsAllowed() noexcept {
    return false;
}

} // namespace Sentrel
