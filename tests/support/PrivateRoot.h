// An install root of a test's own.
#pragma once

#include "tests/support/TemporaryDirectory.h"

#include <sys/types.h>

#include <filesystem>
#include <string>

namespace testing_support {

/// A temporary directory with the fixed directories below it. It is removed with all that is in it when the test ends.
/// Everybody may look in, as on a real machine.
/// Threads: plain, single access. Owner: the test; it must outlive the processes that use it.
class PrivateRoot {
public:
    PrivateRoot();

    const std::filesystem::path& path() const { return m_directory.path(); }
    std::string file(const std::string& name) const { return m_directory.file(name); }

    /// Where a fixed path, such as "/usr/local/Orvanta/hvb/var", is in this root.
    std::string under(const std::string& fixedPath) const { return path().string() + fixedPath; }

    std::string sharedDirectory() const { return under("/Users/Shared/.orvanta"); }
    std::string varDirectory() const { return under("/usr/local/Orvanta/Sentrel/var"); }
    std::string hubVarDirectory() const { return under("/usr/local/Orvanta/hvb/var"); }
    std::string hubConfigDirectory() const { return under("/usr/local/Orvanta/hvb/config"); }
    std::string hubSocket() const { return under("/usr/local/Orvanta/hvb/var/hvbdsocket64"); }

    /// Gives a file or directory, without what is below it, to another user. Requires root.
    static void giveTo(const std::string& path, uid_t uid, gid_t gid);

private:
    TemporaryDirectory m_directory;
};

} // namespace testing_support
