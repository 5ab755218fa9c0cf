#include "daemon/InstallRoot.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace Sentrel {
namespace {

/// Socket addresses have 108 bytes, and callers of the fixed paths size their buffers by what is fixed.
constexpr std::size_t kLongest = 64;

} // namespace

const std::string& installRoot() {
    static const std::string root = [] {
        const char* value = std::getenv("SENTREL_INSTALL_ROOT");
        std::string path(value != nullptr ? value : "");
        if (path.size() > kLongest) {
            std::fprintf(stderr, "SENTREL_INSTALL_ROOT is longer than %zu bytes: paths below it would not fit\n",
                         kLongest);
            std::exit(EXIT_FAILURE);
        }
        return path;
    }();
    return root;
}

} // namespace Sentrel
