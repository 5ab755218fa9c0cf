// A directory of the test's own, gone at its end.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

/// Threads: one at a time. Owner: a test's fixture.
class PrivateDirectory {
public:
    PrivateDirectory() {
        std::string name = "/tmp/hvbdXXXXXX";
        if (mkdtemp(name.data()) == nullptr) {
            throw std::system_error(errno, std::system_category(), "mkdtemp");
        }
        m_path = name;
    }
    ~PrivateDirectory() {
        std::error_code ignored; // nothing is left to do about it at the end
        std::filesystem::remove_all(m_path, ignored);
    }
    PrivateDirectory(const PrivateDirectory&) = delete;
    PrivateDirectory& operator=(const PrivateDirectory&) = delete;

    std::string file(const std::string& name) const { return (m_path / name).string(); }

private:
    std::filesystem::path m_path;
};
