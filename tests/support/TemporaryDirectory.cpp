#include "tests/support/TemporaryDirectory.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace testing_support {
namespace {

/// What a socket's path leaves for the directory in front of the longest one that the tests use, the hub's.
constexpr std::size_t kLongest = 107 - std::char_traits<char>::length("/usr/local/Orvanta/hvb/var/hvbdsocket64");

std::string made() {
    std::string name = (std::filesystem::temp_directory_path() / "snt-XXXXXX").string();
    if (name.size() > kLongest) {
        throw std::runtime_error(name + ": too long for the sockets below it, at most " + std::to_string(kLongest) +
                                 " bytes; set TMPDIR to a shorter directory");
    }
    if (::mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("cannot make a directory " + name + ": " + std::strerror(errno));
    }
    return name;
}

} // namespace

TemporaryDirectory::TemporaryDirectory() : m_path(made()) {}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored; // what cannot be removed stays behind; no test depends on it
    std::filesystem::remove_all(m_path, ignored);
}

} // namespace testing_support
