// What a test may change of its own process and the next one must not find.
#pragma once

#include <array>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <map>
#include <string>

#include <sys/resource.h>
#include <sys/types.h>

namespace testing_support {

/// The signal handlers, the calling thread's signal mask, umask, working directory, environment, locale and limits of
/// this process at one moment.
/// Threads: the test's. Owner: whoever restores it.
class ProcessState {
public:
    /// Notes what is.
    ProcessState();

    /// Brings back what was. A signal that is held back and was not before is dropped, not delivered.
    void restore() const;

private:
    static constexpr std::size_t kSignals = 32; // the real-time signals belong to the libraries
    static constexpr std::array<int, 3> kLimits{RLIMIT_NOFILE, RLIMIT_FSIZE, RLIMIT_CORE};

    void restoreSignals() const;
    void restoreEnvironment() const;

    std::array<struct sigaction, kSignals> m_handlers{};
    sigset_t m_mask{};
    mode_t m_umask = 0;
    std::filesystem::path m_directory;
    std::map<std::string, std::string> m_environment;
    std::string m_locale;
    std::array<rlimit, kLimits.size()> m_limits{};
};

} // namespace testing_support
