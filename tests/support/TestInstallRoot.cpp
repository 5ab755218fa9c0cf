#include "tests/support/TestInstallRoot.h"

#include "base/InstallRoot.h"

#include <cstdlib>

namespace {

std::string& current() {
    static std::string root;
    return root;
}

} // namespace

void testing_support::setInstallRoot(const std::string& path) {
    current() = path;
    setenv("SENTREL_INSTALL_ROOT", path.c_str(), 1);
}

const std::string& Sentrel::installRoot() {
    return current();
}

bool Sentrel::coreDumpsAllowed() noexcept {
    return true;
}
