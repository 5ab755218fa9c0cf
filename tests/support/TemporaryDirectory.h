// A directory of a test's own, where the machine keeps its temporary files.
#pragma once

#include <filesystem>
#include <string>

namespace testing_support {

/// A new directory below the machine's temporary directory (TMPDIR, or the system's own), removed with all that is in
/// it when this object ends. Its name is short, as the path of a socket has at most 107 bytes. Threads: plain, single
/// access. Owner: a test or its fixture.
class TemporaryDirectory {
public:
    /// @throws std::runtime_error when there is none to be had, or when TMPDIR leaves no room for a socket's path.
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const { return m_path; }
    std::string file(const std::string& name) const { return (m_path / name).string(); }

private:
    std::filesystem::path m_path;
};

} // namespace testing_support
